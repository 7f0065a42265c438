#pragma once

#include "CXRealtime.h"

#include <cstdint>

/// The times at which the frames of one device cycle are at the device, in nanoseconds of the host clock.
struct DXRCycleTimes {
    double input = 0;       ///< when the first input frame was captured
    double output = 0;      ///< when the first output frame will be played
    double framePeriod = 0; ///< measured; 0 if the device does not report times

    /// Returns the time `frames` frames after `first`, in host ticks; 0 if the device does not report times.
    uint64_t ticksAt(double first, double frames) const noexcept CX_REALTIME;
};
