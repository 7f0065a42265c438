#pragma once

#include "CXBlock.h"
#include "CXFormat.h"

// The device layer's debug log. It is off unless the application registers a debug centre.
// Threads:   any.
// Real time: no. If inactive, only a flag is read; if active, a line is formatted and written.

/// Registers the function that decides whether debug lines are logged. `isActive` is called once, at the
/// first debug line of the process, and its result is kept; registering later has no effect. Without it no
/// line is logged. Debug lines that `isActive` itself logs are discarded; other threads' lines wait for it to
/// return.
DXR_EXPORT void CXRegisterDebugCenter(CXBlock<bool()> isActive);

/// Returns true if debug lines are logged; for callers whose lines are expensive to build.
DXR_EXPORT bool DXRDebugLogIsActive();

/// Logs "[DXR] message", formatted as by printf, if debug lines are logged; otherwise does nothing.
DXR_EXPORT void DXRDebugLog(const char* format, ...) CX_PRINTF(1, 2);
/// Logs the same line, then writes the caller's stack to standard error: at most the 32 innermost frames,
/// outermost first. If `format` is null, writes only the stack.
DXR_EXPORT void DXRDebugLogWithStack(const char* format, ...) CX_PRINTF(1, 2);
