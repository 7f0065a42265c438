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

/// Puts the calling thread under real-time scheduling. Without a grant the thread keeps its scheduling, and
/// the error is RealtimeKit's, or the kernel's if RealtimeKit is not available. Waits: a few seconds if
/// RealtimeKit does not reply. Uses a fixed priority below the sound server's instead of SCHED_DEADLINE,
/// which would throttle an IO block that exceeds its time.
RealtimeOutcome makeCurrentThreadRealtime();

} // namespace dxr
