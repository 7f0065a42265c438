#pragma once

#include "CXBlock.h"
#include "CXLockFreeReference.h"
#include "Port.h"

#include <atomic>
#include <cstdint>
#include <span>

class CXDispatchQueue;

// What a receiver does with its port at its end.
inline constexpr uint32_t CXDispatchReceiverReleasesSendRight = 0x10000; ///< lets go of the port
inline constexpr uint32_t CXDispatchReceiverReleasesReceiveRight =
    0x20000; ///< closes it: senders are refused

/// Calls its handler on a queue with each message that arrives at its port.
/// Threads:   any; the handler runs on the queue's thread.
/// Real time: no.
/// A receiver on a queue is kept alive by it, and keeps it alive: cancel the receiver to be rid of it.
class DXR_EXPORT CXDispatchReceiver final : public CXObject {
public:
    /// The message is valid for the length of the call.
    using Handler = CXBlock<void(const CXRef<CXDispatchReceiver>&, std::span<const std::byte>)>;

    /// A receiver for `port`. Without one, and with both flags set, it makes its own.
    static CXRef<CXDispatchReceiver> init(const CXRef<platform::Port>& port, uint32_t dealloc);
    /// The same without flags: the port is the caller's business.
    static CXRef<CXDispatchReceiver> init(const CXRef<platform::Port>& port) { return init(port, 0); }

    /// An empty reference when it was given none and made none.
    const CXRef<platform::Port>& port() const noexcept { return _port; }
    CXRef<CXDispatchQueue> queue() const;
    Handler handler() const;

    /// Leaves the queue it is on and enters `queue`, or none for null. A cancelled receiver asserts.
    void setDispatchQueue(const CXRef<CXDispatchQueue>& queue);
    void setMessageHandler(const Handler& handler);
    /// Receives nothing more once this has run on the queue, before this returns if that is where the caller
    /// is. The handler is dropped.
    void cancel();

private:
    CXDispatchReceiver(CXRef<platform::Port> port, uint32_t disposition);
    ~CXDispatchReceiver() override;

    void _finishCancel();

    const CXRef<platform::Port> _port;
    const uint32_t _disposition;
    const CXRef<CXLockFreeReference> _queue;
    const CXRef<CXLockFreeReference> _handler; // a CXStoredBlock
    std::atomic<uint32_t> _cancelled{0};       // bit 0: requested, bit 1: done
};
