#pragma once

#include "CXDispatchQueue.h"
#include "CXDispatchTimer.h"

/// Calls a block after a pause: 0.1 s the first time, then pauses that double up to 10 s.
/// Threads: work of `queue`. The owner cancels the queue before it destroys this.
class RetryTimer {
public:
    explicit RetryTimer(CXRef<CXDispatchQueue> queue) : _queue(std::move(queue)) {}
    RetryTimer(const RetryTimer&) = delete;
    RetryTimer& operator=(const RetryTimer&) = delete;

    /// Calls `block` once after the next pause, in place of a block that is still to be called. It must not
    /// own this object.
    void start(const CXBlock<void()>& block);
    /// The block is not called any more.
    void cancel();
    /// The next pause is the first again.
    void reset();

private:
    const CXRef<CXDispatchQueue> _queue;
    CXRef<CXDispatchTimer> _timer CX_OWNED_BY_QUEUE(_queue); // null unless started
    uint32_t _pause CX_OWNED_BY_QUEUE(_queue) = 0;           // the last one, in milliseconds; 0 before any
};
