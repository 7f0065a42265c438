#pragma once

#include <optional>

namespace dxr {

/// Whether a debugger or tracer is attached to this process now; nothing when the system does not say.
/// Any thread; reads a file.
std::optional<bool> isDebuggerAttached();

} // namespace dxr
