#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <cstdint>

namespace dxr {

/// The host clock: monotonic ticks that every time stamp of the library counts in.
/// Threads:   any.
/// Real time: yes.
class DXR_EXPORT HostClock {
public:
    /// Ticks since an arbitrary moment, the same for every process of the machine; never goes back.
    static uint64_t nowTicks() noexcept CX_REALTIME;

    /// Nanoseconds = ticks * nanosecondsNumerator / nanosecondsDenominator. 1/1 on Linux.
    static constexpr uint32_t nanosecondsNumerator = 1;
    static constexpr uint32_t nanosecondsDenominator = 1;
};

} // namespace dxr
