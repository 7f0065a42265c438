#pragma once

#include "AudioRecords.h"
#include "ClockTracker.h"
#include "DXRCycleTimes.h"

#include <optional>

/// Computes the times at which the frames of a cycle are at the device, from the device's clock as estimated
/// from all time stamps so far: this is steadier than any single stamp.
/// Threads:   unlocked; one thread at a time.
/// Real time: everything.
class DeviceClock {
public:
    /// Forgets the clock: call it when the rate changes or the device's time goes back.
    void reset() noexcept CX_REALTIME
    {
        _tracker.reset();
        _stamps = {};
    }
    /// The device was at frame `now` at time `hostTicks`; the first frames of its cycle are `input` and
    /// `output`.
    DXRCycleTimes follow(uint64_t hostTicks, uint64_t now, double input, double output,
                         double nominalRate) noexcept CX_REALTIME;

private:
    /// The distribution of the stamps' distances from the tracker's line, in nanoseconds: means of the
    /// distance, its square and its cube, weighted towards the latest seconds.
    struct Stamps {
        uint64_t count = 0;
        double mean = 0, square = 0, cube = 0;

        void add(double distance) noexcept CX_REALTIME;
        /// The distance from the line to the clock's most likely position.
        double correction() const noexcept CX_REALTIME;
    };

    std::optional<ClockTracker> _tracker;
    Stamps _stamps;
};
