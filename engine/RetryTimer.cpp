#include "RetryTimer.h"

#include "HostClock.h"

#include <algorithm>
#include <utility>

namespace {

constexpr uint32_t firstPause = 100, longestPause = 10'000; // milliseconds

} // namespace

void RetryTimer::start(const CXBlock<void()>& block)
{
    CX_ASSERT_ON_QUEUE(_queue);
    cancel();
    _pause = _pause == 0 ? firstPause : std::min(2 * _pause, longestPause);
    _timer = CXDispatchTimer::init();
    if (!_timer)
        return;
    _timer->setTimeoutHandler([block](const CXRef<CXDispatchTimer>&) { block(); });
    _timer->setDispatchQueue(_queue);
    constexpr uint64_t ticksPerMillisecond =
        1'000'000 * dxr::HostClock::nanosecondsDenominator / dxr::HostClock::nanosecondsNumerator;
    _timer->setTimeoutAbsolute(dxr::HostClock::nowTicks() + _pause * ticksPerMillisecond, 0);
}

void RetryTimer::cancel()
{
    CX_ASSERT_ON_QUEUE(_queue);
    if (const CXRef<CXDispatchTimer> timer = std::exchange(_timer, nullptr))
        timer->cancel();
}

void RetryTimer::reset()
{
    CX_ASSERT_ON_QUEUE(_queue);
    _pause = 0;
}
