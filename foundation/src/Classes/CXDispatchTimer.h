#pragma once

#include "CXBlock.h"
#include "CXLockFreeReference.h"

#include <atomic>
#include <cstdint>

class CXDispatchQueue;

/// Fires its handler on a queue, once or again and again.
/// Threads:   any; the handler runs on the queue's thread.
/// Real time: the getters; arming from the queue itself, so a handler may arm its own timer again.
/// A timer on a queue is kept alive by it, and keeps it alive: cancel the timer to be rid of it.
class DXR_EXPORT CXDispatchTimer final : public CXObject {
public:
    using Handler = CXBlock<void(const CXRef<CXDispatchTimer>&)>;

    static CXRef<CXDispatchTimer> init();

    CXRef<CXDispatchQueue> queue() const;
    Handler handler() const;
    /// When to fire first, in host ticks; 0: one interval from when it is scheduled.
    uint64_t deadline() const noexcept { return _deadline.load(); }
    /// How often after that, in host ticks; 0: never again.
    uint64_t interval() const noexcept { return _interval.load(); }

    /// Leaves the queue it is on and enters `queue`, or none for null. A cancelled timer asserts.
    void setDispatchQueue(const CXRef<CXDispatchQueue>& queue);
    /// Fires at `deadline` and then every `interval`, both in host ticks and 0 for none. Periods missed are
    /// left out. Replaces what was set before.
    void setTimeoutAbsolute(uint64_t deadline, uint64_t interval);
    void setTimeoutHandler(const Handler& handler);
    /// Never fires again once this has run on the queue, before this returns if that is where the caller is.
    /// The handler is dropped.
    void cancel();

private:
    CXDispatchTimer();
    ~CXDispatchTimer() override = default;

    void _finishCancel();

    const CXRef<CXLockFreeReference> _queue;
    const CXRef<CXLockFreeReference> _handler; // a CXStoredBlock
    std::atomic<uint64_t> _deadline{0};
    std::atomic<uint64_t> _interval{0};
    std::atomic<uint32_t> _cancelled{0}; // bit 0: requested, bit 1: done
};
