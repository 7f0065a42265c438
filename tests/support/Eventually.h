#pragma once

#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

inline void sleepForMilliseconds(int milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

/// Returns DXR_SOAK_SECONDS, the duration in soaks, or `otherwise` if unset.
template <class Number> Number soakSecondsOr(Number otherwise)
{
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    return seconds ? static_cast<Number>(std::atof(seconds)) : otherwise;
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
