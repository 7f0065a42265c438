#pragma once

#include <chrono>
#include <functional>
#include <thread>

inline void sleepForMilliseconds(int milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

/// Waits until `condition` holds, calling `meanwhile` in between. Returns false after 20 s.
inline bool eventually(
    const std::function<bool()>& condition,
    const std::function<void()>& meanwhile = [] { sleepForMilliseconds(2); })
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        meanwhile();
    }
    return true;
}
