#include "CycleStatistics.h"

#include <algorithm>
#include <dxr/autimebase.h>

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

double secondsOf(uint64_t ticks)
{
    return static_cast<double>(static_cast<int64_t>(ticks)) / autimebase_frequency(autimebase_get_shared());
}

void CycleStatistics::note(const DXRCycleRecord& record)
{
    if (!_isCounting)
        _droppedBefore = record.droppedRecords;
    _droppedRecords = record.droppedRecords;
    if (record.event != Event::Cycle) {
        disturb();
        restarts += _isCounting && record.event == Event::ContextStarted;
        return;
    }
    ++cyclesSeen;
    _smoothFrames += record.runnerFrameCount;
    if (record.context != Context::Timer)
        _noteDeviceCycle(record);
    else if (_isCounting)
        timerFrames += record.runnerFrameCount;
    _last = record;
}

void CycleStatistics::_noteDeviceCycle(const DXRCycleRecord& record)
{
    cycleFrames = record.frameCount;
    const bool followsLast = _last.contextNumber == record.contextNumber && _last.context == record.context &&
                             _last.droppedRecords == record.droppedRecords;
    const uint64_t expected = _last.deviceSampleTime + _last.frameCount;
    const bool isGap = followsLast && record.deviceSampleTime != expected;
    if (isGap)
        disturb();
    if (!_isCounting)
        return;
    // A gap before the first counted cycle does not count.
    if (isGap && cycles > 0) {
        ++gaps;
        lostFrames += record.deviceSampleTime > expected ? record.deviceSampleTime - expected : 0;
    }
    ++cycles;
    _noteTimes(record);
}

void CycleStatistics::_noteTimes(const DXRCycleRecord& record)
{
    longestRun = std::max(longestRun, record.endTicks - record.blocksBeginTicks);
    if (record.dueTicks == 0)
        return;
    const uint64_t lateness = record.beginTicks - std::min(record.beginTicks, record.dueTicks);
    largestLateness = std::max(largestLateness, lateness);
    if (record.deadlineTicks == 0 || record.endTicks <= record.deadlineTicks)
        return;
    ++lateCycles;
    lateByUs += lateness <= (record.deadlineTicks - record.dueTicks) / 2;
}
