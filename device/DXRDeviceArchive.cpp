#include "DXRDeviceArchive.h"

#include "CXJSON.h"
#include "CXPlistAdditions.h"

#include <algorithm>
#include <cmath>
#include <string_view>

namespace {

constexpr std::string_view prefix = "DXRDevice:";

std::optional<double> numberIn(const CXPlist& value)
{
    return value.is_number() || value.is_boolean() ? std::optional(CXDoubleValue(value)) : std::nullopt;
}

/// The number rounded down if it is from 1 to `maximum`; otherwise 0.
uint32_t countIn(const CXPlist& value, uint32_t maximum)
{
    const double number = numberIn(value).value_or(0.0);
    return number >= 1.0 && number < maximum + 1.0 ? static_cast<uint32_t>(number) : 0;
}

std::optional<double> rateIn(const CXPlist& value)
{
    const std::optional<double> rate = numberIn(value);
    return rate && std::isfinite(*rate) && *rate > 0.0 ? rate : std::nullopt;
}

/// The results of `read` for the items of an array; empty if it fails for any of them.
template <class Item, class Read> std::vector<Item> itemsIn(const CXPlist& array, const Read& read)
{
    std::vector<Item> items;
    if (!array.is_array())
        return items;
    items.reserve(array.size());
    for (const CXPlist& each : array) {
        std::optional<Item> item = read(each);
        if (!item)
            return {};
        items.push_back(*std::move(item));
    }
    return items;
}

} // namespace

std::vector<std::byte> DXRDeviceArchive::bytesOf(const CXPlist& dictionary)
{
    const std::string text = std::string(prefix) + CXJSONWithPlist(dictionary);
    const auto bytes = std::as_bytes(std::span(text));
    return {bytes.begin(), bytes.end()};
}

std::optional<CXPlist> DXRDeviceArchive::dictionaryIn(std::span<const std::byte> bytes)
{
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (!text.starts_with(prefix))
        return std::nullopt;
    const std::string_view json = text.substr(prefix.size());
    if (!json.starts_with('{') || !json.ends_with('}'))
        return std::nullopt;
    std::optional<CXPlist> dictionary = CXPlistWithJSON(json);
    const CXPlist number = dictionary ? vtObjectForKey(*dictionary, "vn", CXPlistKind::Number) : CXPlist();
    return !number.is_null() && CXDoubleValue(number) == version ? dictionary : std::nullopt;
}

uint32_t DXRDeviceArchive::channelCount(const char* key) const
{
    return countIn(safeObjectForKey(_dictionary, key), maximumChannelCount);
}

std::optional<double> DXRDeviceArchive::rate(const char* key) const
{
    return rateIn(safeObjectForKey(_dictionary, key));
}

std::optional<double> DXRDeviceArchive::scalar(const char* key) const
{
    const std::optional<double> number = numberIn(safeObjectForKey(_dictionary, key));
    return number && *number >= 0.0 && *number <= 1.0 ? number : std::nullopt;
}

bool DXRDeviceArchive::flag(const char* key) const
{
    return numberIn(safeObjectForKey(_dictionary, key)).value_or(0.0) != 0.0;
}

std::string DXRDeviceArchive::string(const char* key) const
{
    const CXPlist value = vtObjectForKey(_dictionary, key, CXPlistKind::String);
    return value.is_string() ? value.get<std::string>() : std::string();
}

std::vector<uint32_t> DXRDeviceArchive::channels(const char* key, uint32_t channelCount) const
{
    return itemsIn<uint32_t>(safeObjectForKey(_dictionary, key), [channelCount](const CXPlist& item) {
        const uint32_t channel = countIn(item, channelCount);
        return channel != 0 ? std::optional(channel) : std::nullopt;
    });
}

std::vector<double> DXRDeviceArchive::rates(const char* key) const
{
    return itemsIn<double>(safeObjectForKey(_dictionary, key), rateIn);
}

std::vector<std::string> DXRDeviceArchive::strings(const char* key) const
{
    return itemsIn<std::string>(safeObjectForKey(_dictionary, key), [](const CXPlist& item) {
        return item.is_string() ? std::optional(item.get<std::string>()) : std::nullopt;
    });
}
