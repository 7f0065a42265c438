#pragma once

#include <dxr/DXRCycleTrace.h>

/// Host ticks in seconds. A difference of ticks may be negative.
double secondsOf(uint64_t ticks);

/// Counts the cycles of a runner by its trace, from beginCounting() on: how many, lost frames, late cycles.
/// Threads: one.
class CycleStatistics {
public:
    void note(const DXRCycleRecord& record);
    /// Counts from the next record on. Until then only isSettled() and cyclesSeen() are valid.
    void beginCounting() { _isCounting = true; }

    /// Whether cycles of a runner of that rate have come for a quarter of a second without a gap, a new
    /// context or disturb(): sound servers lose cycles while they connect.
    bool isSettled(double sampleRate) const;
    void disturb() { _smoothFrames = 0; }
    /// All cycles so far.
    uint64_t cyclesSeen() const { return _cyclesSeen; }

    uint64_t cycles() const { return _cycles; }           ///< of devices
    uint64_t timerFrames() const { return _timerFrames; } ///< the runner's, without any device
    uint64_t gaps() const { return _gaps; }               ///< jumps of the device's sample time
    uint64_t lostFrames() const { return _lostFrames; }   ///< in the gaps
    /// Cycles that ended after their deadline, and those of them that began in the first half of their time:
    /// the application was too slow.
    uint64_t lateCycles() const { return _lateCycles; }
    uint64_t lateByUs() const { return _lateByUs; }
    uint64_t restarts() const { return _restarts; }               ///< new contexts
    uint64_t largestLateness() const { return _largestLateness; } ///< host ticks from due to begin, maximum
    uint64_t longestRun() const { return _longestRun; }           ///< host ticks that the blocks ran, maximum
    uint32_t cycleFrames() const { return _cycleFrames; }         ///< of the last cycle of a device
    uint64_t missingRecords() const { return _droppedRecords - _droppedBefore; } ///< not counted

private:
    void _noteDeviceCycle(const DXRCycleRecord& record);
    void _noteTimes(const DXRCycleRecord& record);

    bool _isCounting = false;
    uint64_t _cyclesSeen = 0, _cycles = 0, _timerFrames = 0;
    uint64_t _gaps = 0, _lostFrames = 0, _lateCycles = 0, _lateByUs = 0, _restarts = 0;
    uint64_t _largestLateness = 0, _longestRun = 0;
    uint64_t _droppedRecords = 0, _droppedBefore = 0;
    uint64_t _smoothFrames = 0; // the runner's, since the last gap or new context
    uint32_t _cycleFrames = 0;
    DXRCycleRecord _last; // of context None before the first cycle
};
