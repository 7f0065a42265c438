#pragma once

#include "CXExport.h"
#include "RealtimeScheduling.h"

/// The real-time scheduling of a thread: none, SCHED_FIFO from the kernel, or SCHED_RR from RealtimeKit.
using CXRealtimeGrant = dxr::RealtimeGrant;

/// Puts the calling thread under real-time scheduling. A refusal is logged and leaves the thread's scheduling
/// unchanged. Waits a few seconds at most.
DXR_EXPORT CXRealtimeGrant CXThreadSetRealtime();
