#include "autimebase.h"

#include "HostClock.h"
#include "_multiplyRatio.h"

#include <cstdlib>

using dxr::HostClock;

namespace {

void fill(autimebase& timebase) noexcept
{
    timebase.numer = HostClock::nanosecondsNumerator;
    timebase.denom = HostClock::nanosecondsDenominator;
    // Divided before multiplying, because clocks derived from this record use the rounded quotient.
    timebase.frequency = static_cast<double>(timebase.denom) / static_cast<double>(timebase.numer) * 1e9;
}

} // namespace

const autimebase* autimebase_get_shared() noexcept
{
    static const autimebase shared = [] {
        autimebase timebase{};
        fill(timebase);
        return timebase;
    }();
    return &shared;
}

autimebase* autimebase_create() noexcept
{
    auto* const timebase = static_cast<autimebase*>(std::calloc(1, sizeof(autimebase)));
    if (timebase)
        fill(*timebase);
    return timebase;
}

void autimebase_destroy(autimebase* timebase) noexcept
{
    std::free(timebase);
}

double autimebase_frequency(const autimebase* timebase) noexcept
{
    return timebase->frequency;
}

uint64_t autimebase_abstime() noexcept
{
    return HostClock::nowTicks();
}

uint64_t autimebase_nanoseconds(const autimebase* timebase) noexcept
{
    return autimebase_abstime_to_nanoseconds(timebase, autimebase_abstime());
}

uint64_t autimebase_abstime_to_nanoseconds(const autimebase* timebase, uint64_t ticks) noexcept
{
    return _multiplyRatio(ticks, timebase->numer, timebase->denom);
}

uint64_t autimebase_nanoseconds_to_abstime(const autimebase* timebase, uint64_t nanoseconds) noexcept
{
    return _multiplyRatio(nanoseconds, timebase->denom, timebase->numer);
}
