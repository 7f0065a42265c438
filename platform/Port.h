#pragma once

#include "PortOwner.h"

#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace dxr {

class PortSet;

/// A bounded queue of messages (byte strings) for one receiver inside this process. The receiver takes
/// messages through the PortSet that the port belongs to.
/// Threads:   any.
/// Real time: no; it locks and copies.
class DXR_EXPORT Port final : public CXObject {
public:
    using Message = std::vector<std::byte>;
    static constexpr size_t defaultQueueLimit = 5;

    /// Creates a port that holds at most `queueLimit` messages; the limit is at least 1.
    static CXRef<Port> init(size_t queueLimit = defaultQueueLimit);
    /// Creates a port that receives an empty message whenever `descriptor` is readable. After
    /// messageHandled() the descriptor is checked again. The caller owns the descriptor and must keep it open
    /// until the port is closed. Returns null if the system cannot watch the descriptor (plain files are
    /// always readable and cannot be watched) or no thread can be created for it.
    static CXRef<Port> initWithDescriptor(int descriptor);

    enum class SendResult {
        Sent,
        Full,  ///< the queue holds `queueLimit` messages; nothing was sent
        Closed ///< the receiver has closed the port
    };
    /// Appends a copy of `message`. Never waits for space.
    SendResult send(std::span<const std::byte> message);
    /// Called when the receiver stops: drops pending messages and refuses later ones.
    void close();

    /// The object that the receiver has attached, which the port keeps alive; initially null.
    CXRef<CXObject> context() const;
    void setContext(CXRef<CXObject> context);
    /// Called by the receiver when it has processed the message that it took.
    void messageHandled();

private:
    friend class PortSet;

    Port(size_t queueLimit, int descriptor);
    ~Port() override;

    /// Makes `owner` (which may be null) the port's owner. Returns true if messages are pending.
    bool _join(CXRef<PortOwner> owner);
    bool _belongsTo(const PortOwner& owner) const;
    /// Takes the oldest message if the port still belongs to `owner`. Sets `hasMore` to whether more are
    /// pending.
    std::optional<Message> _take(const PortOwner& owner, bool& hasMore);

    const size_t _queueLimit;
    const int _descriptor;     // -1 if the port has none
    mutable std::mutex _mutex; // guards the fields below; never held together with a PortSet's
    std::deque<Message> _messages;
    CXRef<PortOwner> _owner;
    CXRef<CXObject> _context;
    bool _isClosed = false;
};

} // namespace dxr
