#pragma once

#include <optional>

namespace dxr {

/// Returns whether a debugger or tracer is attached to this process, or nothing if the system does not report
/// it. Any thread; reads a file.
std::optional<bool> isDebuggerAttached();

} // namespace dxr
