#include "HostClock.h"

#include <ctime>

namespace dxr {

uint64_t HostClock::nowTicks() noexcept
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now); // runs in user space; cannot fail for this clock
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

} // namespace dxr
