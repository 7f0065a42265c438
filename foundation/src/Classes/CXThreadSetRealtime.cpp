#include "CXThreadSetRealtime.h"

#include "HostClock.h"
#include "LogSink.h"
#include "RealtimeScheduling.h"

#include <cerrno>
#include <cstdio>

void CXThreadSetRealtime()
{
    constexpr uint32_t periodNanoseconds = 1'000'000;
    const platform::RealtimePolicy policy{periodNanoseconds, periodNanoseconds / 10, periodNanoseconds};
    if (platform::makeCurrentThreadRealtime(policy) != platform::RealtimeOutcome::Refused)
        return;
    using platform::HostClock;
    const uint64_t periodTicks =
        uint64_t{periodNanoseconds} * HostClock::nanosecondsDenominator / HostClock::nanosecondsNumerator;
    char line[96];
    std::snprintf(line, sizeof line, "thread_policy_set returned %i for period %u", EPERM,
                  static_cast<unsigned>(periodTicks));
    platform::LogSink::log(line);
}
