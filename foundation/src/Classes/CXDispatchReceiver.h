#pragma once

#include "CXBlock.h"
#include "CXDispatchSource.h"
#include "Port.h"

#include <cstdint>
#include <span>

// What a receiver does with its port at its end.
inline constexpr uint32_t CXDispatchReceiverReleasesSendRight = 0x10000; ///< lets go of the port
inline constexpr uint32_t CXDispatchReceiverReleasesReceiveRight =
    0x20000; ///< closes it: senders are refused

/// Calls its handler on a queue with each message that arrives at its port.
/// Threads:   any; the handler runs on the queue's thread.
/// Real time: no.
class DXR_EXPORT CXDispatchReceiver final : public CXDispatchSource {
public:
    /// The message is valid for the length of the call.
    using Handler = CXBlock<void(const CXRef<CXDispatchReceiver>&, std::span<const std::byte>)>;

    /// A receiver for `port`. Without one, and with both flags set, it makes its own.
    static CXRef<CXDispatchReceiver> init(const CXRef<dxr::Port>& port, uint32_t dealloc);
    /// The same without flags: the port is the caller's business.
    static CXRef<CXDispatchReceiver> init(const CXRef<dxr::Port>& port) { return init(port, 0); }

    /// An empty reference when it was given none and made none.
    CXRef<dxr::Port> port() const override { return _port; }
    Handler handler() const;
    void setMessageHandler(const Handler& handler);

private:
    CXDispatchReceiver(CXRef<dxr::Port> port, uint32_t disposition);
    ~CXDispatchReceiver() override;

    void call(std::span<const std::byte> message) override;
    void _enter(CXDispatchQueue& queue) override;
    void _leave(CXDispatchQueue& queue) override;

    const CXRef<dxr::Port> _port;
    const uint32_t _disposition;
};
