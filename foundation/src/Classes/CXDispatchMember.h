#pragma once

#include "CXRef.h"
#include "Port.h"

#include <cstdint>
#include <span>

/// What a queue knows of the timers and receivers on it.
/// Threads: any, but call(), which is the queue's.
class CXDispatchMember : public CXObject {
public:
    /// Leaves its queue for good.
    virtual void cancel() = 0;
    /// Calls its handler: a receiver's with the message, a timer's without.
    virtual void call(std::span<const std::byte> message) = 0;

    /// Where a receiver's messages arrive; null for a timer.
    virtual CXRef<dxr::Port> port() const { return nullptr; }
    /// When a timer is to fire first, in host ticks; 0: one interval from when it is scheduled.
    virtual uint64_t deadline() const noexcept { return 0; }
    /// How often a timer fires after that, in host ticks; 0: never again.
    virtual uint64_t interval() const noexcept { return 0; }
};
