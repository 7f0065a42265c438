#pragma once

#include <cstddef>

namespace dxr {

/// Memory mapped directly from the system, zeroed and page-aligned, never from the C library's allocator.
/// Threads:   any.
/// Real time: no; every call enters the kernel.
class PageMapping {
public:
    struct Result {
        std::byte* address; ///< null on failure
        int error;          ///< an errno value; 0 on success
    };
    /// Whether the pages are made present at once, or each at its first access.
    enum class Touch { Now, Later };

    /// Maps `byteSize` bytes, a multiple of the page size.
    static Result map(size_t byteSize, Touch touch) noexcept;
    /// Maps `byteSize` bytes at a multiple of `alignment`, a power of two. Each page is made present at its
    /// first access. Uses small pages only, because the first access to a huge page would stop the thread a
    /// hundred times as long.
    static Result mapAligned(size_t byteSize, size_t alignment) noexcept;
    /// Makes the pages of part of a mapping present. Returns false if the system is out of memory.
    static bool makePresent(std::byte* address, size_t byteSize) noexcept;
    static void unmap(std::byte* address, size_t byteSize) noexcept;
};

} // namespace dxr
