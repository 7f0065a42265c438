#include "DeviceClock.h"

#include "HostClock.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double memoryStamps = 16384;
constexpr double wild = 6.0; // standard deviations; stamps further off are clamped

} // namespace

void DeviceClock::Stamps::add(double distance) noexcept
{
    if (count >= 64) {
        const double bound = wild * std::sqrt(std::max(0.0, square - mean * mean)) + 1.0;
        distance = std::clamp(distance, mean - bound, mean + bound);
    }
    const double share = 1.0 / std::min(static_cast<double>(++count), memoryStamps);
    mean += share * (distance - mean);
    square += share * (distance * distance - square);
    cube += share * (distance * distance * distance - cube);
}

// The tracker's line lies between early and late stamps, nearer to the early ones. If stamps are early as
// often as late, the clock is at their mean. If they are only late, because threads wake late, their
// distribution is skewed and the clock is before the mean: by 1.32 standard deviations for a half-normal
// distribution (skewness 1), by one standard deviation for an exponential distribution (skewness 2).
double DeviceClock::Stamps::correction() const noexcept
{
    const double variance = square - mean * mean;
    if (count < 64 || !(variance > 1.0))
        return 0.0;
    const double deviation = std::sqrt(variance);
    const double third = cube - 3.0 * mean * square + 2.0 * mean * mean * mean;
    const double skewness = std::clamp(third / (variance * deviation), 0.0, 2.0);
    const double lateness = 1.32 * std::min(skewness, 1.0) - 0.32 * std::max(skewness - 1.0, 0.0);
    const double certainty = std::min(1.0, static_cast<double>(count) / 1024.0);
    return certainty * (mean - lateness * deviation);
}

DXRCycleTimes DeviceClock::follow(uint64_t hostTicks, uint64_t now, double input, double output,
                                  double nominalRate) noexcept
{
    constexpr double nanosecondsPerTick =
        double{dxr::HostClock::nanosecondsNumerator} / dxr::HostClock::nanosecondsDenominator;
    if (!_tracker)
        _tracker.emplace(nominalRate);
    const double stamp = static_cast<double>(hostTicks) * nanosecondsPerTick;
    const ClockTracker::Outcome outcome = _tracker->update(static_cast<uint64_t>(stamp), now);
    const double framePeriod = 1e9 / (nominalRate * _tracker->rateRatio());
    const double line = _tracker->timeOf(now);
    if (outcome == ClockTracker::Outcome::Resynchronised)
        _stamps = {};
    else if (outcome == ClockTracker::Outcome::Followed)
        _stamps.add(stamp - line);
    const double nanoseconds = line + _stamps.correction();
    const auto timeOf = [&](double frame) {
        return nanoseconds + (frame - static_cast<double>(now)) * framePeriod;
    };
    return {timeOf(input), timeOf(output), framePeriod};
}
