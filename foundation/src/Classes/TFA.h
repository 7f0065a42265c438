#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <cstddef>

// The thread-safe fast allocator, for memory that IO threads allocate and free: power-of-two blocks, with one
// lock-free free list per size. A request gets a block of the next power of two, at least 16 bytes. A freed
// block returns to the list of its size and is never returned to the system.
// Threads:   every function may be called on any thread, concurrently.
// Real time: TFA_free, and an allocation that finds a free block: one exchange of a list's head, in the same
//            time for every size. Only if a size's list is empty is the system asked for memory; TFA_reserve
//            prevents that.
// Fails:     if the system has no memory, writes a line to standard error and returns null. Pointers that
//            this allocator did not return are not detected.

extern "C" {

/// Allocates a block of at least `size` bytes, aligned to 16 bytes or, if larger than 4096 bytes, to a page.
/// Its content is undefined. A size of 0 is treated as 1.
[[nodiscard]] DXR_EXPORT void* TFA_malloc(size_t size) noexcept CX_REALTIME;
/// Allocates a block of count * size bytes, zeroed. The product is not checked for overflow.
[[nodiscard]] DXR_EXPORT void* TFA_calloc(size_t count, size_t size) noexcept CX_REALTIME;
/// Resizes a block. Returns the same block if its size fits exactly, otherwise a new block with the same
/// content, and frees `pointer`. A size of 0 returns a block of 16 bytes; a null pointer allocates. On
/// failure returns null and leaves `pointer` unchanged.
[[nodiscard]] DXR_EXPORT void* TFA_realloc(void* pointer, size_t size) noexcept CX_REALTIME;
/// Like TFA_realloc, but on failure passes `pointer` to the C library's free(), which did not allocate it;
/// kept for compatibility. Callers that must survive a failure use TFA_realloc.
[[nodiscard]] DXR_EXPORT void* TFA_reallocf(void* pointer, size_t size) noexcept;
/// Frees a block. Does nothing for null; ends the process if the block's header is damaged.
DXR_EXPORT void TFA_free(void* pointer) noexcept CX_REALTIME;
/// The size of the block in bytes; 0 for null.
[[nodiscard]] DXR_EXPORT size_t TFA_malloc_size(const void* pointer) noexcept CX_REALTIME;
/// The size of the block that a request for `size` bytes returns: 16 for 0, and 0 if the request is larger
/// than the largest power of two.
[[nodiscard]] DXR_EXPORT size_t TFA_malloc_good_size(size_t size) noexcept CX_REALTIME;
/// Allocates a page-aligned block of at least `size` bytes, and at least 8192.
[[nodiscard]] DXR_EXPORT void* TFA_valloc(size_t size) noexcept CX_REALTIME;

/// Adds at least `count` free blocks for requests of `size` bytes, with their pages already present. Free
/// blocks that exist are not counted. Not for an IO thread: it asks the system for memory. Returns false if
/// the system provides less; blocks already added remain.
[[nodiscard]] DXR_EXPORT bool TFA_reserve(size_t size, size_t count) noexcept;

/// An allocator as a table of callbacks, for containers that accept one. `hint` and `info` are ignored.
struct CXAllocatorCallbacks {
    long version; ///< 0
    void* info;   ///< null
    /// TFA_malloc.
    void* (*allocate)(long size, unsigned long hint, void* info);
    /// TFA_realloc; returns null if the pointer is null or the size 0.
    void* (*reallocate)(void* pointer, long newSize, unsigned long hint, void* info);
    /// TFA_free.
    void (*deallocate)(void* pointer, void* info);
    /// TFA_malloc_good_size.
    long (*preferredSize)(long size, unsigned long hint, void* info);
};

/// The fast allocator. Statically initialised, so it can be used before any constructor of the process runs.
DXR_EXPORT extern const CXAllocatorCallbacks* const CXTFACFAllocator;

} // extern "C"
