#pragma once

#include <string>
#include <vector>

namespace platform {

/// The current thread's call stack as text, innermost call first; `CallStack::symbols` itself is left out.
/// Threads:   any.
/// Real time: no; it reads symbol tables and allocates.
class CallStack {
public:
    /// One line a frame: number, module, address, demangled name and offset; the address alone where no name
    /// is known. `skip` more frames are left out at the innermost end. At most 256 frames.
    static std::vector<std::string> symbols(size_t skip = 0);
};

} // namespace platform
