#pragma once

#include "CXRealtime.h"
#include "ClockTracker.h"

#include <cstdint>
#include <optional>

/// The sample time of a device, from the stamps of its cycles. It only grows: with the device's frames while it runs,
/// by the frames that the device would have had where it was interrupted, and not at all between two runs.
/// Threads:   one at a time; the IO thread's while IO runs.
/// Real time: advance().
class AlsaTimeline {
public:
    /// IO begins, at `rate` Hz.
    void begin(double rate);
    /// The device has lost frames and is about to begin again: its positions count from 0.
    void interrupt() noexcept { _isAligned = false; }

    struct Step {
        uint64_t sampleTime; ///< of the first frame after the cycle's input
        double nanoseconds;  ///< when the device was there, on the host clock
        double nanosecondsPerFrame;
        double rateRatio; ///< frames per nominal frame
    };
    /// The device was at frame `position` since it began, at `hostNanoseconds`. `due` is the position at which the cycle,
    /// of `frameCount` frames, was due.
    Step advance(uint64_t hostNanoseconds, uint64_t position, uint64_t due, uint32_t frameCount) noexcept
        CX_REALTIME;

private:
    void _align(uint64_t hostNanoseconds, uint64_t position, uint64_t due) noexcept;

    std::optional<ClockTracker> _tracker; // of this run
    double _rate = 48000.0;
    uint64_t _next = 0;   // no cycle's sample time is before it
    uint64_t _origin = 0; // the sample time of position 0
    bool _isAligned = false;
};
