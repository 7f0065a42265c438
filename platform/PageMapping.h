#pragma once

#include <cstddef>

namespace dxr {

/// Memory straight from the system, zeroed and page-aligned, never from the C library's allocator.
/// Threads:   any.
/// Real time: no; every call enters the kernel.
class PageMapping {
public:
    struct Result {
        std::byte* address; ///< null on failure
        int error;          ///< an errno value; 0 on success
    };
    /// Whether the pages are made present at once or each at its first touch.
    enum class Touch { Now, Later };

    /// `byteSize` bytes, a multiple of the page size.
    static Result map(size_t byteSize, Touch touch) noexcept;
    /// The same at an address that is a multiple of `alignment`, a power of two; the pages come at their
    /// first touch, each small: a huge one would stop the thread that touches it for a hundred times as long.
    static Result mapAligned(size_t byteSize, size_t alignment) noexcept;
    /// Makes the pages of a part of a mapping present. False when the system has no memory for them.
    static bool makePresent(std::byte* address, size_t byteSize) noexcept;
    static void unmap(std::byte* address, size_t byteSize) noexcept;
};

} // namespace dxr
