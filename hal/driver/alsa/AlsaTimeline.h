#pragma once

#include "CXRealtime.h"
#include "ClockTracker.h"

#include <cstdint>
#include <optional>

/// The sample time of a device, derived from the stamps of its cycles. It never decreases. It advances with
/// the device's frames while the device runs, by the frames lost in an interruption, and not at all between
/// two runs.
/// Threads:   one at a time; the IO thread while IO runs.
/// Real time: advance().
class AlsaTimeline {
public:
    /// Begins a run of IO at `rate` Hz.
    void begin(double rate);
    /// Called before a device that has lost frames is restarted: its positions count from 0 again.
    void interrupt() noexcept { _isAligned = false; }

    struct Step {
        uint64_t sampleTime; ///< of the first frame after the cycle's input
        double nanoseconds;  ///< when the device's clock was at sampleTime, on the host clock
        double nanosecondsPerFrame;
        double rateRatio; ///< frames per nominal frame
    };
    /// Adds a stamp: the device was at frame `position`, counted since its start, at `hostNanoseconds`. The
    /// cycle of `frameCount` frames was due at position `due`.
    Step advance(uint64_t hostNanoseconds, uint64_t position, uint64_t due, uint32_t frameCount) noexcept
        CX_REALTIME;

private:
    void _align(uint64_t hostNanoseconds, uint64_t position, uint64_t due) noexcept;

    std::optional<ClockTracker> _tracker; // of this run
    double _rate = 48000.0;
    uint64_t _next = 0;   // minimum of the next sample time
    uint64_t _origin = 0; // the sample time of position 0
    bool _isAligned = false;
};
