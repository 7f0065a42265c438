#pragma once

#include <dxr/DXRCycleTrace.h>

/// Host ticks in seconds. A difference of ticks may be negative.
double secondsOf(uint64_t ticks);

/// Counts the cycles in a runner's trace after beginCounting().
struct CycleStatistics {
    uint64_t cyclesSeen = 0; ///< all cycles, including those before beginCounting()

    uint64_t cycles = 0;      ///< of devices
    uint64_t timerFrames = 0; ///< the runner's frames while no device ran
    uint64_t gaps = 0;        ///< jumps of the device's sample time
    uint64_t lostFrames = 0;  ///< in the gaps
    /// Cycles that ended after their deadline; lateByUs are those of them that began in the first half of the
    /// time they had, so that the application was too slow.
    uint64_t lateCycles = 0, lateByUs = 0;
    uint64_t restarts = 0;        ///< new contexts
    uint64_t largestLateness = 0; ///< host ticks from due time to begin, maximum
    uint64_t longestRun = 0;      ///< host ticks that the blocks ran, maximum
    uint32_t cycleFrames = 0;     ///< of the last cycle of a device

    void note(const DXRCycleRecord& record);
    void beginCounting() { _isCounting = true; }
    /// Whether a runner at `sampleRate` Hz has run for a quarter of a second without a gap, a new context or
    /// disturb(): sound servers lose cycles while they connect.
    bool isSettled(double sampleRate) const
    {
        return static_cast<double>(_smoothFrames) >= 0.25 * sampleRate;
    }
    /// Restarts the quarter of a second.
    void disturb() { _smoothFrames = 0; }
    /// Records that were lost because the trace was full.
    uint64_t missingRecords() const { return _droppedRecords - _droppedBefore; }

private:
    void _noteDeviceCycle(const DXRCycleRecord& record);
    void _noteTimes(const DXRCycleRecord& record);

    bool _isCounting = false;
    uint64_t _droppedRecords = 0, _droppedBefore = 0;
    uint64_t _smoothFrames = 0; // the runner's frames since the last disturb()
    DXRCycleRecord _last;       // its context is None before the first cycle
};
