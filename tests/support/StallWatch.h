#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <thread>

/// Measures how late the machine wakes a thread of high real-time priority. On a virtual machine the
/// processor may stall for a while; tests tolerate such stalls, because no program can prevent them.
class StallWatch {
public:
    explicit StallWatch(std::chrono::nanoseconds tolerated)
        : _thread([this, tolerated] { _watch(tolerated); })
    {}
    ~StallWatch()
    {
        _ended = true;
        _thread.join();
    }

    uint32_t stalls() const noexcept { return _stalls; }
    double longestMilliseconds() const noexcept { return static_cast<double>(_longest.load()) * 1e-6; }

private:
    void _watch(std::chrono::nanoseconds tolerated)
    {
        using Clock = std::chrono::steady_clock;
        const sched_param precedence{.sched_priority = 90};
        pthread_setschedparam(pthread_self(), SCHED_FIFO, &precedence);
        for (auto due = Clock::now(); !_ended; due = Clock::now()) {
            due += std::chrono::milliseconds(1);
            std::this_thread::sleep_until(due);
            const std::chrono::nanoseconds late = Clock::now() - due;
            _stalls += late > tolerated;
            if (late.count() > _longest)
                _longest = late.count();
        }
    }

    std::atomic<bool> _ended{false};
    std::atomic<uint32_t> _stalls{0};
    std::atomic<int64_t> _longest{0};
    std::thread _thread;
};
