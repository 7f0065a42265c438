#include "AlsaTimeline.h"

#include <algorithm>
#include <cmath>

void AlsaTimeline::begin(double rate)
{
    _rate = rate;
    _tracker.emplace(rate);
    _isAligned = false;
}

/// Computes the origin with which the tracker's clock continues through the interruption as if the device had
/// kept running. So the tracker keeps the rate that it has learned.
void AlsaTimeline::_align(uint64_t hostNanoseconds, uint64_t position, uint64_t due) noexcept
{
    _isAligned = true;
    double start = static_cast<double>(_next);
    if (_tracker->isKnown()) {
        const double now = _tracker->frameAt(static_cast<double>(hostNanoseconds));
        const double dueNow = now + static_cast<double>(due) - static_cast<double>(position);
        start = std::max(start, std::round(dueNow)); // AlsaPcm has rejected stamps far from the host clock
    } else {
        start = std::max(start, static_cast<double>(due));
    }
    _origin = static_cast<uint64_t>(start) - due;
}

AlsaTimeline::Step AlsaTimeline::advance(uint64_t hostNanoseconds, uint64_t position, uint64_t due,
                                         uint32_t frameCount) noexcept
{
    if (!_isAligned)
        _align(hostNanoseconds, position, due);
    _tracker->update(hostNanoseconds, _origin + position);
    const uint64_t sampleTime = std::max(_next, _origin + due);
    _next = sampleTime + frameCount;
    const double ratio = _tracker->rateRatio();
    return {sampleTime, std::max(0.0, _tracker->timeOf(sampleTime)), 1e9 / (_rate * ratio), ratio};
}
