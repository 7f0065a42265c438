#pragma once

#include <dxr/DXRCycleTrace.h>

/// Host ticks in seconds. A difference of ticks may be negative.
double secondsOf(uint64_t ticks);

/// Counts the cycles of a runner by its trace, from beginCounting() on.
/// Threads: one.
struct CycleStatistics {
    uint64_t cyclesSeen = 0; ///< all, also before it counts

    uint64_t cycles = 0;      ///< of devices
    uint64_t timerFrames = 0; ///< the runner's, without any device
    uint64_t gaps = 0;        ///< jumps of the device's sample time
    uint64_t lostFrames = 0;  ///< in the gaps
    /// Cycles that ended after their deadline, and those of them that began in the first half of their time:
    /// the application was too slow.
    uint64_t lateCycles = 0, lateByUs = 0;
    uint64_t restarts = 0;        ///< new contexts
    uint64_t largestLateness = 0; ///< host ticks from due to begin, maximum
    uint64_t longestRun = 0;      ///< host ticks that the blocks ran, maximum
    uint32_t cycleFrames = 0;     ///< of the last cycle of a device

    void note(const DXRCycleRecord& record);
    void beginCounting() { _isCounting = true; }
    /// Whether cycles of a runner of that rate have come for a quarter of a second without a gap, a new
    /// context or disturb(): sound servers lose cycles while they connect.
    bool isSettled(double sampleRate) const;
    void disturb() { _smoothFrames = 0; }
    /// Records that the trace had no room for.
    uint64_t missingRecords() const { return _droppedRecords - _droppedBefore; }

private:
    void _noteDeviceCycle(const DXRCycleRecord& record);
    void _noteTimes(const DXRCycleRecord& record);

    bool _isCounting = false;
    uint64_t _droppedRecords = 0, _droppedBefore = 0;
    uint64_t _smoothFrames = 0; // the runner's, since the last gap or new context
    DXRCycleRecord _last;       // of context None before the first cycle
};
