#pragma once

#include "CXDispatchQueue.h"
#include "CXDispatchTimer.h"
#include "CXTimeBase.h"

#include <thread>

constexpr uint64_t millisecond = 1'000'000; // host ticks

inline uint64_t now()
{
    return CXTimeBase::sharedTimeBase()->absoluteTime();
}

inline CXRef<CXDispatchTimer> timerFor(uint64_t deadline, uint64_t interval,
                                       const CXDispatchTimer::Handler& handler)
{
    CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
    timer->setTimeoutHandler(handler);
    timer->setTimeoutAbsolute(deadline, interval);
    return timer;
}

/// A queue for one test; the destructor cancels it.
class TestQueue {
public:
    ~TestQueue()
    {
        _queue->cancel();
        while (_queue->thread() != 0)
            std::this_thread::yield();
    }
    CXDispatchQueue* operator->() const { return _queue.get(); }
    const CXRef<CXDispatchQueue>& ref() const { return _queue; }
    /// Waits until all work queued earlier has run.
    void settle() const
    {
        _queue->dispatchSync([] {});
    }
    /// Waits until no thread drains the queue, so that a bypass can borrow it.
    void waitUntilIdle() const
    {
        while (_queue->owner() != 0)
            std::this_thread::yield();
    }

private:
    const CXRef<CXDispatchQueue> _queue = CXDispatchQueue::initWithName("test");
};
