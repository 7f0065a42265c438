#pragma once

#include "CXObject.h"

#include <new>

/// The root of objects that live in the fast allocator: making and destroying one asks nothing of the system
/// while its size has free blocks. Its memory starts zeroed.
/// Threads:   as CXObject.
/// Real time: creation and destruction, as far as the class's own constructor and destructor are.
/// Fails:     `new` returns null where there is no memory, and runs no constructor.
class DXR_EXPORT CXTFAObject : public CXObject {
public:
    static void* operator new(size_t size) noexcept;
    /// For a class that wants more than the 16 bytes a block is aligned to: pages of its own. Null above a
    /// page.
    static void* operator new(size_t size, std::align_val_t alignment) noexcept;
    static void operator delete(void* pointer) noexcept;
    static void* operator new[](size_t) = delete; // objects are counted one by one

protected:
    CXTFAObject() noexcept = default;
    ~CXTFAObject() override;
};
