#pragma once

#include "CXExport.h"
#include "RealtimeScheduling.h"

/// Which real-time scheduling a thread has: none, SCHED_FIFO from the kernel, or SCHED_RR from RealtimeKit.
using CXRealtimeGrant = dxr::RealtimeGrant;

/// Puts the calling thread under real-time scheduling for work every millisecond that takes a tenth of it. A
/// refusal is logged and changes nothing. Waits, a few seconds at most.
DXR_EXPORT CXRealtimeGrant CXThreadSetRealtime();
