#include "CXTimeBase.h"

#include "HostClock.h"
#include "_multiplyRatio.h"

#include <new>

using dxr::HostClock;

CXRef<CXTimeBase> CXTimeBase::sharedTimeBase()
{
    // Constructed in static storage, so that a first use on an IO thread does not allocate. Never destroyed,
    // because threads may use it while the process exits.
    alignas(CXTimeBase) static std::byte place[sizeof(CXTimeBase)];
    static auto* const shared =
        new (place) CXTimeBase(HostClock::nanosecondsNumerator, HostClock::nanosecondsDenominator);
    return CXRef<CXTimeBase>(shared);
}

CXRef<CXTimeBase> CXTimeBase::init()
{
    return initWithRatio(HostClock::nanosecondsNumerator, HostClock::nanosecondsDenominator);
}

CXRef<CXTimeBase> CXTimeBase::initWithRatio(uint32_t numerator, uint32_t denominator)
{
    return CXRef<CXTimeBase>::adopt(new CXTimeBase(numerator, denominator));
}

CXTimeBase::CXTimeBase(uint32_t numerator, uint32_t denominator) noexcept
    : _timeBaseToNanosNumerator(numerator), _timeBaseToNanosDenominator(denominator),
      // Divided before multiplying, because clocks derived from this object use the rounded quotient.
      _timeBaseAbsoluteFrequency(static_cast<double>(denominator) / static_cast<double>(numerator) * 1e9)
{}

uint64_t CXTimeBase::absoluteTime() const noexcept
{
    return HostClock::nowTicks();
}

uint64_t CXTimeBase::nanoseconds() const noexcept
{
    return nanosecondsFromAbsoluteTime(absoluteTime());
}

uint64_t CXTimeBase::nanosecondsFromAbsoluteTime(uint64_t ticks) const noexcept
{
    return _multiplyRatio(ticks, _timeBaseToNanosNumerator, _timeBaseToNanosDenominator);
}

uint64_t CXTimeBase::absoluteTimeFromNanoseconds(uint64_t nanoseconds) const noexcept
{
    return _multiplyRatio(nanoseconds, _timeBaseToNanosDenominator, _timeBaseToNanosNumerator);
}
