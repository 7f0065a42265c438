#include "CXFourCharCode.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

std::string stringWithFourCharCode(uint32_t code)
{
    std::string text;
    for (const int shift : {24, 16, 8, 0})
        text += static_cast<char>(code >> shift & 0xFF);
    if (std::ranges::all_of(text, [](char c) { return std::isprint(static_cast<unsigned char>(c)) != 0; }))
        return text;
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08X", code);
    return digits;
}
