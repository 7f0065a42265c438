#pragma once

#include "WorkQueue.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace platform {

/// The one thread that hands delayed work to its queue when its time has come.
/// Threads: any. It lives as long as the process.
class DelayTimer {
public:
    static DelayTimer& shared();

    void schedule(uint64_t delayNanoseconds, CXRef<WorkQueue> queue, WorkQueue::Work work);

private:
    using Clock = std::chrono::steady_clock;
    struct Delayed {
        CXRef<WorkQueue> queue;
        WorkQueue::Work work;
    };

    void _run();

    std::mutex _mutex;
    std::condition_variable _changed;
    std::multimap<Clock::time_point, Delayed> _pending; // equal times keep the order they were scheduled in
    bool _started = false;
};

} // namespace platform
