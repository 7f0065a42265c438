#pragma once

#include "CXObject.h"

/// The root of objects that live in the fast allocator: making and destroying one asks nothing of the system
/// while its size has free blocks. Its memory starts zeroed.
/// Threads:   as CXObject.
/// Real time: creation and destruction, as far as the class's own constructor and destructor are.
/// Fails:     `new` answers null where there is no memory, and runs no constructor.
class DXR_EXPORT CXTFAObject : public CXObject {
public:
    static void* operator new(size_t size) noexcept;
    static void operator delete(void* pointer) noexcept;
    static void* operator new[](size_t) = delete; // objects are counted one by one

protected:
    CXTFAObject() noexcept = default;
    ~CXTFAObject() override;
};
