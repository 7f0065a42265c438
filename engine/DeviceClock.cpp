#include "DeviceClock.h"

#include "HostClock.h"

DXRCycleTimes DeviceClock::follow(uint64_t hostTicks, uint64_t now, double input, double output,
                                  double nominalRate) noexcept
{
    constexpr double nanosecondsPerTick =
        double{platform::HostClock::nanosecondsNumerator} / platform::HostClock::nanosecondsDenominator;
    if (!_tracker)
        _tracker.emplace(nominalRate);
    _tracker->update(static_cast<uint64_t>(static_cast<double>(hostTicks) * nanosecondsPerTick), now);
    const double framePeriod = 1e9 / (nominalRate * _tracker->rateRatio());
    const double nanoseconds = _tracker->timeOf(now);
    const auto timeOf = [&](double frame) {
        return nanoseconds + (frame - static_cast<double>(now)) * framePeriod;
    };
    return {timeOf(input), timeOf(output), framePeriod};
}
