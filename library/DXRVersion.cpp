#include "DXRVersion.h"

#define DXR_TEXT(value) DXR_TEXT_OF(value)
#define DXR_TEXT_OF(value) #value

const char* DXRVersionString() noexcept
{
    return DXR_TEXT(DXR_VERSION_MAJOR) "." DXR_TEXT(DXR_VERSION_MINOR) "." DXR_TEXT(DXR_VERSION_PATCH);
}
