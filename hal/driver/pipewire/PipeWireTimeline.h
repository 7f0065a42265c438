#pragma once

#include "CXRealtime.h"

#include <cstdint>

/// The sample time of a running device, derived from the clocks of its drivers. It only increases, by the
/// frames that have passed, also when the clock is replaced or restarts.
/// Threads: one at a time; the audio thread while IO runs.
/// Real time: yes.
class PipeWireTimeline {
public:
    /// The clock of one cycle.
    struct Clock {
        uint32_t id;          ///< identifies the clock
        uint64_t position;    ///< frames, as the clock counts them
        uint64_t nanoseconds; ///< when the cycle was due
        uint32_t frameCount;  ///< of the cycle
        uint32_t rate;        ///< Hz
    };
    struct Step {
        uint64_t sampleTime; ///< of the first frame of this cycle
        bool lostFrames;     ///< whether frames between the last cycle and this one were never delivered
        /// Whether this cycle must not be run, because it was already reported as lost. While a late thread
        /// catches up, its cycles show the clock of a later cycle: a cycle first seems to be missing, and in
        /// the end one appears twice. If that one were run, it would be counted twice and the sample time
        /// would get ahead of the clock.
        bool wasCounted;
    };

    Step advance(const Clock& clock) noexcept CX_REALTIME;
    /// Does not count the time until the next cycle: IO is stopped, and resumes after its last frame.
    void pause() noexcept { _isPaused = true; }

private:
    Clock _last{};
    uint64_t _sampleTime = 0;
    uint64_t _lostFrames = 0; // lost recently; their cycles may still be run
    uint64_t _lastLoss = 0;   // when, nanoseconds
    bool _isPaused = true;
};
