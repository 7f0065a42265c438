#include "NumberText.h"

#include <charconv>
#include <cmath>

std::string numberText(double value)
{
    if (std::isnan(value))
        return "?";
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::general, 6).ptr;
    return {text, end};
}
