#pragma once

#include "CXObject.h"

#include <new>

/// Base class of objects allocated by the fast allocator: creating and destroying them makes no system call
/// while free blocks of their size exist. The memory is initially zeroed.
/// Threads:   as CXObject.
/// Real time: creation and destruction, if the subclass's constructor and destructor are.
/// Fails:     `new` returns null, without running the constructor, if memory cannot be allocated.
class DXR_EXPORT CXTFAObject : public CXObject {
public:
    static void* operator new(size_t size) noexcept;
    /// For classes that need an alignment of more than 16 bytes: allocates whole pages. Returns null if
    /// `alignment` exceeds a page.
    static void* operator new(size_t size, std::align_val_t alignment) noexcept;
    static void operator delete(void* pointer) noexcept;
    static void* operator new[](size_t) = delete; // each object has its own reference count

protected:
    CXTFAObject() noexcept = default;
    ~CXTFAObject() override;
};
