#pragma once

#include "CXBlock.h"
#include "CXDispatchSource.h"
#include "Port.h"

#include <cstdint>
#include <span>

// What a receiver does with its port when it is destroyed.
inline constexpr uint32_t CXDispatchReceiverReleasesSendRight = 0x10000; ///< releases the port
inline constexpr uint32_t CXDispatchReceiverReleasesReceiveRight =
    /// Closes the port: later messages are refused.
    0x20000;

/// Calls its handler on a queue with each message that arrives at its port.
/// Threads:   any; the handler runs on the queue's thread.
/// Real time: no.
class DXR_EXPORT CXDispatchReceiver final : public CXDispatchSource {
public:
    /// The message is valid during the call only.
    using Handler = CXBlock<void(const CXRef<CXDispatchReceiver>&, std::span<const std::byte>)>;

    /// Creates a receiver for `port`. If `port` is null and both flags are set, creates a port.
    static CXRef<CXDispatchReceiver> init(const CXRef<dxr::Port>& port, uint32_t dealloc);
    /// Creates a receiver that neither closes nor creates a port.
    static CXRef<CXDispatchReceiver> init(const CXRef<dxr::Port>& port) { return init(port, 0); }

    /// Returns null if the receiver was created without a port.
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
