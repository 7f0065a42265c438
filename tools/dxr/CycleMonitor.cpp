#include "CycleMonitor.h"

#include <algorithm>
#include <cmath>
#include <dxr/HostClock.h>

namespace {

/// For counters with a single writer.
template <class Value> void add(std::atomic<Value>& counter, Value value) noexcept
{
    counter.store(counter.load(std::memory_order_relaxed) + value, std::memory_order_relaxed);
}

} // namespace

void CycleMonitor::noteCycle(const AudioTimeStamp* now, const AudioTimeStamp* time,
                             uint32_t frameCount) noexcept
{
    const double sampleTime = time ? time->sampleTime : _nextSampleTime;
    const double jump = _nextSampleTime < 0.0 ? 0.0 : sampleTime - _nextSampleTime;
    _nextSampleTime = sampleTime + frameCount;
    const bool isGap = std::fabs(jump) > 0.5;
    add<uint64_t>(_cyclesRun, 1);
    add<uint64_t>(_framesRun, frameCount);
    _framesSinceGap.store(isGap ? 0 : _framesSinceGap.load(std::memory_order_relaxed) + frameCount,
                          std::memory_order_relaxed);
    _cycleFrames.store(frameCount, std::memory_order_relaxed);
    if (!_isCounting.load(std::memory_order_relaxed))
        return;
    // The first counted cycle has nothing before it that could be missing.
    if (isGap && cycles() > 0) {
        add<uint64_t>(_gaps, 1);
        add<uint64_t>(_lostFrames, static_cast<uint64_t>(std::max(0.0, std::round(jump))));
    }
    add<uint64_t>(_cycles, 1);
    add<uint64_t>(_frames, frameCount);
    const uint64_t ticks = platform::HostClock::nowTicks();
    const uint64_t lateness = now && ticks > now->hostTime ? ticks - now->hostTime : 0;
    if (lateness > _largestLateness.load(std::memory_order_relaxed))
        _largestLateness.store(lateness, std::memory_order_relaxed);
}

void CycleMonitor::noteOverload() noexcept
{
    if (_isCounting.load(std::memory_order_relaxed))
        _overloads.fetch_add(1, std::memory_order_relaxed);
}

bool CycleMonitor::isSettled() const noexcept
{
    constexpr double smoothSeconds = 0.1;
    constexpr double patienceSeconds = 1.0;
    return static_cast<double>(_framesSinceGap.load(std::memory_order_relaxed)) >=
               smoothSeconds * _sampleRate ||
           static_cast<double>(_framesRun.load(std::memory_order_relaxed)) >= patienceSeconds * _sampleRate;
}

double CycleMonitor::largestLatenessMilliseconds() const noexcept
{
    using Clock = platform::HostClock;
    return static_cast<double>(_largestLateness.load(std::memory_order_relaxed)) *
           Clock::nanosecondsNumerator / Clock::nanosecondsDenominator / 1e6;
}
