#pragma once

#include "CXBlock.h"
#include "CXFormat.h"

// The device layer's opt-in debug log. Off unless the application registers a debug centre.
// Threads:   any.
// Real time: no; an inactive log only reads a flag, an active one formats and writes.

/// Registers where the debug-log switch is read: `isActive` is asked once, at the first debug line of the
/// process, and its answer then holds for good. Registering later changes nothing; without it nothing is ever
/// logged.
DXR_EXPORT void CXRegisterDebugCenter(CXBlock<bool()> isActive);

/// Whether debug lines are logged: whoever would make a dear one asks first.
DXR_EXPORT bool DXRDebugLogIsActive();

/// Logs "[DXR] message", formatted as by printf, when the switch is active; otherwise does nothing at all.
DXR_EXPORT void DXRDebugLog(const char* format, ...) CX_PRINTF(1, 2);
/// The same, and then the caller's stack to standard error, outermost first, its 32 innermost frames at most.
/// A null format logs the stack alone.
DXR_EXPORT void DXRDebugLogWithStack(const char* format, ...) CX_PRINTF(1, 2);
