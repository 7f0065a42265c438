#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <cstdint>

namespace dxr {

/// The host clock: monotonic ticks, the unit of all time stamps in the library.
/// Threads:   any.
/// Real time: yes.
class DXR_EXPORT HostClock {
public:
    /// Ticks since an arbitrary moment, the same for every process on the machine; never decreases.
    static uint64_t nowTicks() noexcept CX_REALTIME;

    /// Nanoseconds = ticks * nanosecondsNumerator / nanosecondsDenominator. 1/1 on Linux.
    static constexpr uint32_t nanosecondsNumerator = 1;
    static constexpr uint32_t nanosecondsDenominator = 1;
    static constexpr double ticksPerSecond = 1e9 * nanosecondsDenominator / nanosecondsNumerator;
};

} // namespace dxr
