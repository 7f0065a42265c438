#include "CycleStatistics.h"

#include <algorithm>
#include <dxr/HostClock.h>

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

double secondsOf(uint64_t ticks)
{
    using dxr::HostClock;
    return static_cast<double>(static_cast<int64_t>(ticks)) * HostClock::nanosecondsNumerator /
           HostClock::nanosecondsDenominator / 1e9;
}

void CycleStatistics::note(const DXRCycleRecord& record)
{
    if (!_isCounting)
        _droppedBefore = record.droppedRecords;
    _droppedRecords = record.droppedRecords;
    if (record.event != Event::Cycle)
        return _noteEvent(record);
    ++_cyclesSeen;
    _smoothFrames += record.runnerFrameCount;
    if (_isCounting) {
        _frames += record.runnerFrameCount;
        _stepsBack += record.sampleTime < _last.sampleTime;
    }
    if (record.context != Context::Timer) {
        _noteDeviceCycle(record);
    } else if (_isCounting) {
        ++_timerCycles;
        _timerFrames += record.runnerFrameCount;
    }
    _last = record;
}

void CycleStatistics::_noteEvent(const DXRCycleRecord& record)
{
    disturb();
    if (!_isCounting)
        return;
    _restarts += record.event == Event::ContextStarted;
    _failedStarts += record.event == Event::ContextFailed;
}

void CycleStatistics::_noteDeviceCycle(const DXRCycleRecord& record)
{
    _cycleFrames = record.frameCount;
    const bool followsLast = _last.contextNumber == record.contextNumber && _last.context == record.context &&
                             _last.droppedRecords == record.droppedRecords;
    const uint64_t expected = _last.deviceSampleTime + _last.frameCount;
    const bool isGap = followsLast && record.deviceSampleTime != expected;
    if (isGap)
        disturb();
    if (!_isCounting)
        return;
    // The first that counts has nothing before it that could be missing.
    if (isGap && _cycles > 0) {
        ++_gaps;
        _lostFrames += record.deviceSampleTime > expected ? record.deviceSampleTime - expected : 0;
    }
    ++_cycles;
    _noteTimes(record);
}

void CycleStatistics::_noteTimes(const DXRCycleRecord& record)
{
    _longestRun = std::max(_longestRun, record.endTicks - record.blocksBeginTicks);
    if (record.dueTicks == 0)
        return;
    const uint64_t lateness = record.beginTicks - std::min(record.beginTicks, record.dueTicks);
    _largestLateness = std::max(_largestLateness, lateness);
    if (record.deadlineTicks == 0 || record.endTicks <= record.deadlineTicks)
        return;
    ++_lateCycles;
    _lateByUs += lateness <= (record.deadlineTicks - record.dueTicks) / 2;
}

bool CycleStatistics::isSettled(double sampleRate) const
{
    constexpr double smoothSeconds = 0.25;
    return static_cast<double>(_smoothFrames) >= smoothSeconds * sampleRate;
}
