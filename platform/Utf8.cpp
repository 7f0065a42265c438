#include "Utf8.h"

#include <algorithm>
#include <cstdint>

namespace dxr {

size_t utf8CharacterLength(std::string_view text) noexcept
{
    const auto byte = [&](size_t i) { return i < text.size() ? static_cast<uint8_t>(text[i]) : 0U; };
    const auto tail = [&](size_t i, uint32_t low = 0x80, uint32_t high = 0xBF) {
        return byte(i) >= low && byte(i) <= high;
    };
    const uint32_t lead = byte(0);
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return tail(1) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF)
        return tail(1, lead == 0xE0 ? 0xA0 : 0x80, lead == 0xED ? 0x9F : 0xBF) && tail(2) ? 3 : 0;
    if (lead >= 0xF0 && lead <= 0xF4)
        return tail(1, lead == 0xF0 ? 0x90 : 0x80, lead == 0xF4 ? 0x8F : 0xBF) && tail(2) && tail(3) ? 4 : 0;
    return 0;
}

std::string_view utf8Prefix(std::string_view text, size_t maxBytes) noexcept
{
    size_t size = 0;
    while (size < text.size()) {
        const size_t length = std::max<size_t>(utf8CharacterLength(text.substr(size)), 1);
        if (size + length > maxBytes)
            break;
        size += length;
    }
    return text.substr(0, size);
}

std::string utf8Replaced(std::string_view text)
{
    std::string replaced;
    replaced.reserve(text.size());
    while (!text.empty()) {
        const size_t length = utf8CharacterLength(text);
        replaced += length > 0 ? text.substr(0, length) : std::string_view("\xEF\xBF\xBD");
        text.remove_prefix(length > 0 ? length : 1);
    }
    return replaced;
}

} // namespace dxr
