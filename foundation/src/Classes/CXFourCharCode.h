#pragma once

#include "CXExport.h"

#include <cstdint>
#include <string>

/// The 32-bit code of four ASCII characters, the first in the top byte: CXFourCharCode("volm") is 0x766F6C6D.
consteval uint32_t CXFourCharCode(const char (&text)[5])
{
    uint32_t code = 0;
    for (int i = 0; i < 4; ++i)
        code = code << 8 | static_cast<uint8_t>(text[i]);
    return code;
}

/// Returns the code as four characters if all are printable in the C locale, otherwise as eight upper-case
/// hexadecimal digits.
DXR_EXPORT std::string stringWithFourCharCode(uint32_t code);
