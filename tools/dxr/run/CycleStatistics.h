#pragma once

#include <dxr/DXRCycleTrace.h>

#include <array>

/// Host ticks in seconds; negative ones, of an earlier time less a later, too.
double secondsOf(uint64_t ticks);

/// What the cycles of a runner have been like, by its trace: how many, what is missing between them, which were late and
/// whether the application caused it. Counts from beginCounting() on.
/// Threads: one.
class CycleStatistics {
public:
    void note(const DXRCycleRecord& record);
    /// Starts to count with the next record; until then only isSettled() and cyclesSeen() are of use.
    void beginCounting() { _isCounting = true; }

    /// Whether the device gives its cycles smoothly by now: many sound servers lose a cycle or two while they connect
    /// things. True after a quarter of a second, of a runner of that rate, without a gap, a new context or disturb().
    bool isSettled(double sampleRate) const;
    void disturb() { _smoothFrames = 0; }
    /// Cycles of any kind so far.
    uint64_t cyclesSeen() const { return _cyclesSeen; }

    uint64_t cycles() const { return _cycles; }           ///< of devices
    uint64_t timerCycles() const { return _timerCycles; } ///< without any device
    uint64_t frames() const { return _frames; }           ///< the runner's, in all cycles
    uint64_t timerFrames() const { return _timerFrames; } ///< of these, without any device
    /// Jumps of the sample time of the device that gives the cycles, and the frames that are missing there.
    uint64_t gaps() const { return _gaps; }
    uint64_t lostFrames() const { return _lostFrames; }
    /// Cycles that ended after their deadline, and those among them that had come in time: within the first half of what
    /// they have. The others came too late for anybody to help it.
    uint64_t lateCycles() const { return _lateCycles; }
    uint64_t lateByUs() const { return _lateByUs; }
    uint64_t restarts() const { return _restarts; }         ///< new contexts since counting began
    uint64_t failedStarts() const { return _failedStarts; } ///< contexts that did not start
    /// The longest from when a device's cycle was due until it came in, and how long its blocks ran at the longest, in
    /// host ticks.
    uint64_t largestLateness() const { return _largestLateness; }
    uint64_t longestRun() const { return _longestRun; }
    uint32_t cycleFrames() const { return _cycleFrames; } ///< of the last cycle of a device
    uint64_t stepsBack() const { return _stepsBack; }     ///< of the runner's own time, which must only grow
    uint64_t missingRecords() const { return _droppedRecords - _droppedBefore; } ///< not seen, so not counted

private:
    void _noteEvent(const DXRCycleRecord& record);
    void _noteDeviceCycle(const DXRCycleRecord& record);
    void _noteTimes(const DXRCycleRecord& record);

    bool _isCounting = false;
    uint64_t _cyclesSeen = 0, _cycles = 0, _timerCycles = 0, _frames = 0, _timerFrames = 0;
    uint64_t _gaps = 0, _lostFrames = 0, _lateCycles = 0, _lateByUs = 0, _restarts = 0, _failedStarts = 0;
    uint64_t _largestLateness = 0, _longestRun = 0, _stepsBack = 0;
    uint64_t _droppedRecords = 0, _droppedBefore = 0;
    uint64_t _smoothFrames = 0; // the runner's, since the last gap or new context
    uint32_t _cycleFrames = 0;
    DXRCycleRecord _last; // the last cycle's; of context None before the first
};
