#include "CXTFAObject.h"

#include "TFA.h"

#include <cstring>

CXTFAObject::~CXTFAObject() = default;

void* CXTFAObject::operator new(size_t size) noexcept
{
    return TFA_calloc(1, size);
}

void* CXTFAObject::operator new(size_t size, std::align_val_t alignment) noexcept
{
    constexpr auto pageAlignment = std::align_val_t{4096};
    void* const pages = alignment <= pageAlignment ? TFA_valloc(size) : nullptr;
    return pages ? std::memset(pages, 0, size) : nullptr;
}

void CXTFAObject::operator delete(void* pointer) noexcept
{
    TFA_free(pointer);
}
