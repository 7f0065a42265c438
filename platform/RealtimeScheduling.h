#pragma once

#include <cstdint>

namespace platform {

/// How an IO thread wants to be scheduled. Computation, within constraint of the start of each period.
struct RealtimePolicy {
    uint64_t periodNanoseconds = 1'000'000;
    uint64_t computationNanoseconds = 100'000;
    uint64_t constraintNanoseconds = 1'000'000;
};

enum class RealtimeOutcome {
    Fifo,        ///< SCHED_FIFO, granted by the kernel
    RealtimeKit, ///< SCHED_RR, granted by RealtimeKit on the system bus
    Refused,     ///< neither; the thread runs as before
};

/// Puts the calling thread under real-time scheduling. Waits: for a RealtimeKit that is stuck, a few seconds.
/// SCHED_DEADLINE could express the policy whole, but would throttle an IO block that runs over its
/// computation; a fixed priority below the sound server's keeps the promise that matters.
RealtimeOutcome makeCurrentThreadRealtime(const RealtimePolicy& policy = {});

} // namespace platform
