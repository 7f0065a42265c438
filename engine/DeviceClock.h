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
    void reset() noexcept CX_REALTIME
    {
        _tracker.reset();
        _stamps = {};
    }
    /// The device stood at frame `now` at `hostTicks`; its cycle's first frames are those at `input` and `output`.
    DXRCycleTimes follow(uint64_t hostTicks, uint64_t now, double input, double output,
                         double nominalRate) noexcept CX_REALTIME;

private:
    /// How stamps lie about the tracker's line, in nanoseconds: means of their distance and its powers, the latest seconds'
    /// counting most.
    struct Stamps {
        uint64_t count = 0;
        double mean = 0, square = 0, cube = 0;

        void add(double distance) noexcept CX_REALTIME;
        /// From the line to where the clock most likely is.
        double correction() const noexcept CX_REALTIME;
    };

    std::optional<ClockTracker> _tracker;
    Stamps _stamps;
};
