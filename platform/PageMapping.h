#pragma once

#include <cstddef>

namespace platform {

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
    /// Moves the mapping of `alignment` bytes at `address`, pages and all, to an address that is a multiple
    /// of `alignment`, a power of two. The old mapping is gone afterwards, whatever the outcome.
    static Result moveToAlignment(std::byte* address, size_t alignment) noexcept;
};

} // namespace platform
