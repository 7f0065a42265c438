#pragma once

#include "CXRealtime.h"

#include <cstdint>

/// The sample time of a running device, made of the clocks of its drivers: it only grows, by the frames that
/// went by, also when the clock is another one from now on or starts again.
/// Threads: one at a time; the audio thread's while IO runs.
/// Real time: yes.
class PipeWireTimeline {
public:
    /// The clock of one cycle.
    struct Clock {
        uint32_t id;          ///< which clock it is
        uint64_t position;    ///< frames, by its own count
        uint64_t nanoseconds; ///< when the cycle was due
        uint32_t frameCount;  ///< of the cycle
        uint32_t rate;        ///< Hz
    };
    struct Step {
        uint64_t sampleTime; ///< of the first frame of this cycle
        bool lostFrames;     ///< whether frames between the last cycle and this one were never delivered
        /// Whether this cycle must not be run: it is one of those reported as lost. A thread that is late
        /// finds the clock of a later cycle in the cycles that it catches up with, so that one seems to be
        /// missing first, and in the end one comes twice. Were that run, it would be counted twice, and the
        /// sample time would go ahead of the clock.
        bool wasCounted;
    };

    Step advance(const Clock& clock) noexcept CX_REALTIME;
    /// The time until the next cycle does not count: IO was stopped, and goes on after its last frame.
    void pause() noexcept { _isPaused = true; }

private:
    Clock _last{};
    uint64_t _sampleTime = 0;
    uint64_t _lostFrames = 0; // of late, which may come after all
    uint64_t _lastLoss = 0;   // nanoseconds
    bool _isPaused = true;
};
