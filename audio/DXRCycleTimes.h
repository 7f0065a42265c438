#pragma once

#include "CXRealtime.h"

#include <cstdint>

/// When the frames of one device cycle are at the device, in nanoseconds of the host clock.
struct DXRCycleTimes {
    double input = 0;       ///< the first input frame was taken
    double output = 0;      ///< the first output frame will be played
    double framePeriod = 0; ///< of the device as it runs; 0: the device does not say its times

    /// `frames` after `first`, in host ticks; 0 where the device does not say its times.
    uint64_t ticksAt(double first, double frames) const noexcept CX_REALTIME;
};
