#pragma once

#include "PortOwner.h"

#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace dxr {

class PortSet;

/// Where messages for one receiver wait, inside this process: a bounded queue of byte strings. Messages are
/// taken out through the PortSet that the port belongs to.
/// Threads:   any.
/// Real time: no; it locks and copies.
class DXR_EXPORT Port final : public CXObject {
public:
    using Message = std::vector<std::byte>;
    static constexpr size_t defaultQueueLimit = 5;

    /// A port where at most `queueLimit` messages wait, 1 at least.
    static CXRef<Port> init(size_t queueLimit = defaultQueueLimit);
    /// A port that has an empty message whenever `descriptor`, which stays the caller's and open for as long
    /// as the port is not closed, can be read from. It is looked at again when the message has been handled.
    /// Null when the system cannot watch it: a plain file is always readable and never watched.
    static CXRef<Port> initWithDescriptor(int descriptor);

    enum class SendResult {
        Sent,
        Full,  ///< as many wait as the limit allows; nothing was sent
        Closed ///< the receiving end is gone
    };
    /// Appends a copy of `message`. Never waits for room.
    SendResult send(std::span<const std::byte> message);
    /// Drops what waits and refuses what comes: the receiving end is gone.
    void close();

    /// What the receiving end has attached, kept alive here; an empty reference at first.
    CXRef<CXObject> context() const;
    void setContext(CXRef<CXObject> context);
    /// The receiver is done with the message that it took.
    void messageHandled();

private:
    friend class PortSet;

    Port(size_t queueLimit, int descriptor);
    ~Port() override;

    /// Belongs to `owner` from now on, or to none; whether messages wait.
    bool _join(CXRef<PortOwner> owner);
    bool _belongsTo(const PortOwner& owner) const;
    /// The oldest message, if the port still belongs to `owner`, and whether more wait behind it.
    std::optional<Message> _take(const PortOwner& owner, bool& hasMore);

    const size_t _queueLimit;
    const int _descriptor;     // -1 without one
    mutable std::mutex _mutex; // guards all below; never held together with a set's
    std::deque<Message> _messages;
    CXRef<PortOwner> _owner;
    CXRef<CXObject> _context;
    bool _isClosed = false;
};

} // namespace dxr
