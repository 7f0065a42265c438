#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <cstddef>

// The thread-safe fast allocator: power-of-two blocks on one lock-free list per size, for memory that is
// taken and given back on IO threads. A request gets the next power of two at or above it, 16 bytes at least;
// a freed block goes back to the list of its size and is never returned to the system.
// Threads:   every function from any thread at once.
// Real time: TFA_free, and an allocation that finds a free block of its size: one exchange of a list's head,
//            the same time for every size. Only a size that has run out asks the system for more; TFA_reserve
//            prevents that.
// Fails:     where the system has no memory to give, a line on standard error and null. Pointers that did not
//            come from here are not detected.

extern "C" {

/// A block of at least `size` bytes, aligned to 16 and, above 4096 bytes, to a page; its content is
/// undefined. 0 counts as 1.
[[nodiscard]] DXR_EXPORT void* TFA_malloc(size_t size) noexcept CX_REALTIME;
/// A block of count * size bytes, zeroed. The product is not checked for overflow.
[[nodiscard]] DXR_EXPORT void* TFA_calloc(size_t count, size_t size) noexcept CX_REALTIME;
/// A block for `size` bytes that begins with what `pointer` held: the same block when its size fits exactly,
/// else another, and `pointer` is freed. A size of 0 gives a block of 16 bytes and frees nothing for good; a
/// null pointer allocates. On failure null, and `pointer` stays.
[[nodiscard]] DXR_EXPORT void* TFA_realloc(void* pointer, size_t size) noexcept CX_REALTIME;
/// As TFA_realloc, but on failure `pointer` goes to the C library's free(), which is not where it came from:
/// kept as published. A caller that must survive a failure uses TFA_realloc.
[[nodiscard]] DXR_EXPORT void* TFA_reallocf(void* pointer, size_t size) noexcept;
/// Gives a block back. Null does nothing; a block whose header is damaged ends the process.
DXR_EXPORT void TFA_free(void* pointer) noexcept CX_REALTIME;
/// How many bytes the block holds; 0 for null.
[[nodiscard]] DXR_EXPORT size_t TFA_malloc_size(const void* pointer) noexcept CX_REALTIME;
/// How many bytes a request for `size` would hold: 16 for 0. Past the largest power of two there is none: 0.
[[nodiscard]] DXR_EXPORT size_t TFA_malloc_good_size(size_t size) noexcept CX_REALTIME;
/// A page-aligned block of at least `size` bytes, and of 8192 at least.
[[nodiscard]] DXR_EXPORT void* TFA_valloc(size_t size) noexcept CX_REALTIME;

/// Adds at least `count` free blocks for requests of `size` bytes, their pages already present, so that as
/// many requests find a block regardless of what is in use. Not for an IO thread: it asks the system for
/// memory. False when the system gives less; what it gave stays.
[[nodiscard]] DXR_EXPORT bool TFA_reserve(size_t size, size_t count) noexcept;

/// An allocator as a table of callbacks, for containers that take theirs that way. `hint` and `info` are
/// ignored.
struct CXAllocatorCallbacks {
    long version; ///< 0
    void* info;   ///< null: nothing to retain, release or describe
    /// TFA_malloc.
    void* (*allocate)(long size, unsigned long hint, void* info);
    /// TFA_realloc; null when the pointer is null or the size 0.
    void* (*reallocate)(void* pointer, long newSize, unsigned long hint, void* info);
    /// TFA_free.
    void (*deallocate)(void* pointer, void* info);
    /// TFA_malloc_good_size.
    long (*preferredSize)(long size, unsigned long hint, void* info);
};

/// The fast allocator; ready before any code of the process runs.
DXR_EXPORT extern const CXAllocatorCallbacks* const CXTFACFAllocator;

} // extern "C"
