#pragma once

#include "CXBlock.h"
#include "CXFormat.h"

// The device layer's opt-in debug log. Off unless the application registers a debug centre.
// Threads:   any.
// Real time: no; an inactive log only reads a flag, an active one formats and writes.

/// Registers where the debug-log switch is read: `isActive` is called once, at the first debug line of the
/// process, and its result is kept. Registering later changes nothing; without it nothing is ever logged.
/// Debug lines that `isActive` writes itself are dropped, and those of other threads wait for it.
DXR_EXPORT void CXRegisterDebugCenter(CXBlock<bool()> isActive);

/// Whether debug lines are logged: for callers whose line is expensive to build.
DXR_EXPORT bool DXRDebugLogIsActive();

/// Logs "[DXR] message", formatted as by printf, when the switch is active; otherwise does nothing at all.
DXR_EXPORT void DXRDebugLog(const char* format, ...) CX_PRINTF(1, 2);
/// The same, and then the caller's stack to standard error, outermost first, its 32 innermost frames at most.
/// A null format logs the stack alone.
DXR_EXPORT void DXRDebugLogWithStack(const char* format, ...) CX_PRINTF(1, 2);
