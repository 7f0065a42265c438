#include "CXThreadSetRealtime.h"

#include "DXRDebugLog.h"
#include "HostClock.h"
#include "LogSink.h"

#include <cstdint>
#include <cstdio>

CXRealtimeGrant CXThreadSetRealtime()
{
    const dxr::RealtimeOutcome outcome = dxr::makeCurrentThreadRealtime();
    if (outcome.grant != CXRealtimeGrant::None) {
        DXRDebugLog("real-time scheduling: %s",
                    outcome.grant == CXRealtimeGrant::Fifo ? "SCHED_FIFO" : "SCHED_RR from RealtimeKit");
        return outcome.grant;
    }
    using dxr::HostClock;
    constexpr uint64_t periodNanoseconds = 1'000'000;
    constexpr uint64_t periodTicks =
        periodNanoseconds * HostClock::nanosecondsDenominator / HostClock::nanosecondsNumerator;
    char line[96];
    std::snprintf(line, sizeof line, "thread_policy_set returned %i for period %u", outcome.error,
                  static_cast<unsigned>(periodTicks));
    dxr::LogSink::log(line);
    return outcome.grant;
}
