#pragma once

#include <string>
#include <vector>

namespace dxr {

/// The current thread's call stack as text, innermost call first. It begins with the function that calls
/// `CallStack::symbols`.
/// Threads:   any.
/// Real time: no; it reads symbol tables and allocates.
class CallStack {
public:
    /// Returns one line per frame: number, module, return address, demangled name and offset. Shows only the
    /// address if no name is known. At most 256 frames.
    static std::vector<std::string> symbols();
};

} // namespace dxr
