#pragma once

#include "AudioRecords.h"
#include "ClockTracker.h"
#include "DXRCycleTimes.h"

#include <optional>

/// When the frames of a device's cycles are at the device: by its clock as all stamps so far have shown it, which is
/// steadier than each of them.
/// Threads:   one at a time.
/// Real time: everything.
class DeviceClock {
public:
    /// Nothing is known any more: another rate, or the device's time has gone back.
    void reset() noexcept CX_REALTIME { _tracker.reset(); }
    /// The device stood at frame `now` at `hostTicks`; its cycle's first frames are those at `input` and `output`.
    DXRCycleTimes follow(uint64_t hostTicks, uint64_t now, double input, double output,
                         double nominalRate) noexcept CX_REALTIME;

private:
    std::optional<ClockTracker> _tracker;
};
