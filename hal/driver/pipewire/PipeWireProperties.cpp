#include "PipeWireProperties.h"

#include <charconv>
#include <cstdint>
#include <pipewire/properties.h>

void PipeWireProperties::merge(const spa_dict* dictionary)
{
    for (uint32_t i = 0; dictionary && i < dictionary->n_items; ++i) {
        const spa_dict_item& item = dictionary->items[i];
        if (!item.key) // from a server that does not keep the protocol
            continue;
        if (item.value)
            _all[item.key] = item.value;
        else
            _all.erase(item.key);
    }
}

const std::string* PipeWireProperties::find(std::string_view key) const
{
    const auto found = _all.find(key);
    return found == _all.end() ? nullptr : &found->second;
}

const std::string& PipeWireProperties::operator[](std::string_view key) const
{
    static const std::string none;
    const std::string* found = find(key);
    return found ? *found : none;
}

std::optional<uint32_t> PipeWireProperties::number(std::string_view key) const
{
    const std::string& text = (*this)[key];
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

bool PipeWireProperties::isTrue(std::string_view key) const
{
    const std::string& text = (*this)[key];
    return text == "true" || text == "1";
}

pw_properties* PipeWireProperties::copy() const
{
    pw_properties* all = pw_properties_new(nullptr, nullptr);
    for (const auto& [key, value] : _all)
        pw_properties_set(all, key.c_str(), value.c_str());
    return all;
}

namespace {

struct Sequence {
    size_t length;   ///< bytes, including the first
    uint32_t lowest; ///< code point encoded with this length
    uint8_t mark;    ///< leading bits of the first byte
    uint8_t markMask;
};

constexpr Sequence sequences[] = {
    {1, 0, 0x00, 0x80}, {2, 0x80, 0xC0, 0xE0}, {3, 0x800, 0xE0, 0xF0}, {4, 0x10000, 0xF0, 0xF8}};

/// The length in bytes of the valid UTF-8 sequence at the start of `text`; 0 if there is none.
size_t validLength(std::string_view text)
{
    const auto first = static_cast<uint8_t>(text.front());
    for (const Sequence& sequence : sequences) {
        if ((first & sequence.markMask) != sequence.mark)
            continue;
        if (text.size() < sequence.length)
            return 0;
        uint32_t codePoint = first & static_cast<uint8_t>(~sequence.markMask);
        for (size_t i = 1; i < sequence.length; ++i) {
            const auto next = static_cast<uint8_t>(text[i]);
            if ((next & 0xC0) != 0x80)
                return 0;
            codePoint = codePoint << 6 | (next & 0x3FU);
        }
        const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
        return codePoint < sequence.lowest || codePoint > 0x10FFFF || isSurrogate ? 0 : sequence.length;
    }
    return 0;
}

} // namespace

std::string pipeWireText(std::string_view text)
{
    std::string valid;
    valid.reserve(text.size());
    while (!text.empty()) {
        const size_t length = validLength(text);
        valid += length > 0 ? text.substr(0, length) : "\xEF\xBF\xBD";
        text.remove_prefix(length > 0 ? length : 1);
    }
    return valid;
}
