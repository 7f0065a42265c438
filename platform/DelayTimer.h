#pragma once

#include "CXBlock.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace dxr {

/// The thread that moves delayed work to its queue when the delay has passed. There is one per process.
/// Threads: any. It lives as long as the process.
class DelayTimer {
public:
    static DelayTimer& shared();

    using Call = CXBlock<void()>;
    /// Calls `call` after at least `delayNanoseconds`, on the timer's thread; it must be brief. Throws
    /// std::system_error, and never calls it, if the thread cannot be created.
    void schedule(uint64_t delayNanoseconds, Call call);

private:
    using Clock = std::chrono::steady_clock;

    void _run();

    std::mutex _mutex;
    std::condition_variable _changed;
    std::multimap<Clock::time_point, Call> _pending; // equal times keep the order they were scheduled in
    bool _started = false;
};

} // namespace dxr
