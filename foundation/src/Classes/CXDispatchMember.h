#pragma once

#include "CXRef.h"
#include "Port.h"

#include <cstdint>
#include <span>

/// The interface through which a queue uses its timers and receivers.
/// Threads: any; call() only as work of the queue.
class CXDispatchMember : public CXObject {
public:
    /// Removes it permanently from its queue.
    virtual void cancel() = 0;
    /// Calls the handler; only a receiver's handler uses the message.
    virtual void call(std::span<const std::byte> message) = 0;

    /// The port that receives a receiver's messages; null for a timer.
    virtual CXRef<dxr::Port> port() const { return nullptr; }
    /// When a timer fires first, in host ticks; 0: one interval after it is scheduled.
    virtual uint64_t deadline() const noexcept { return 0; }
    /// The interval at which a timer fires after that, in host ticks; 0: fires only once.
    virtual uint64_t interval() const noexcept { return 0; }
};
