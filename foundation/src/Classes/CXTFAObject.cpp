#include "CXTFAObject.h"

#include "TFA.h"

CXTFAObject::~CXTFAObject() = default;

void* CXTFAObject::operator new(size_t size) noexcept
{
    return TFA_calloc(1, size);
}

void CXTFAObject::operator delete(void* pointer) noexcept
{
    TFA_free(pointer);
}
