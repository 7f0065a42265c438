#pragma once

namespace dxr {

enum class RealtimeGrant {
    None,
    Fifo,       ///< SCHED_FIFO, from the kernel
    RealtimeKit ///< SCHED_RR, from RealtimeKit on the system bus
};

struct RealtimeOutcome {
    RealtimeGrant grant;
    int error; ///< an errno value; 0 with a grant
};

/// Puts the calling thread under real-time scheduling. Without a grant the thread runs as before, and the
/// error is RealtimeKit's, or the kernel's where there is no RealtimeKit. Waits: for a RealtimeKit that is
/// stuck, a few seconds. SCHED_DEADLINE would throttle an IO block that runs over its time; a fixed priority
/// below the sound server's does not.
RealtimeOutcome makeCurrentThreadRealtime();

} // namespace dxr
