#include "DXRDeviceArchive.h"

#include "CXPlistAdditions.h"

#include <algorithm>

namespace {

bool isNumber(const CXPlist& value)
{
    return value.is_number() || value.is_boolean();
}

uint32_t countIn(const CXPlist& value)
{
    if (!isNumber(value))
        return 0;
    const double number = CXDoubleValue(value);
    return number >= 0.0 && number < 4294967296.0 ? static_cast<uint32_t>(number) : 0;
}

/// The items of an array when `accepts` all of them, each as an Item; else none.
template <class Item, class Accepts> std::vector<Item> itemsIn(const CXPlist& array, const Accepts& accepts)
{
    std::vector<Item> items;
    if (!array.is_array() || !std::ranges::all_of(array, accepts))
        return items;
    items.reserve(array.size());
    for (const CXPlist& item : array) {
        if constexpr (std::is_arithmetic_v<Item>)
            items.push_back(static_cast<Item>(CXDoubleValue(item)));
        else
            items.push_back(item.template get<Item>());
    }
    return items;
}

} // namespace

uint32_t DXRDeviceArchive::count(const char* key) const
{
    return countIn(safeObjectForKey(_dictionary, key));
}

double DXRDeviceArchive::number(const char* key, double fallback) const
{
    const CXPlist value = vtObjectForKey(_dictionary, key, CXPlistKind::Number);
    return value.is_null() ? fallback : CXDoubleValue(value);
}

std::string DXRDeviceArchive::string(const char* key) const
{
    const CXPlist value = vtObjectForKey(_dictionary, key, CXPlistKind::String);
    return value.is_string() ? value.get<std::string>() : std::string();
}

std::vector<uint32_t> DXRDeviceArchive::channels(const char* key, uint32_t channelCount) const
{
    return itemsIn<uint32_t>(safeObjectForKey(_dictionary, key), [channelCount](const CXPlist& item) {
        const uint32_t channel = countIn(item);
        return channel >= 1 && channel <= channelCount;
    });
}

std::vector<double> DXRDeviceArchive::positiveNumbers(const char* key) const
{
    return itemsIn<double>(safeObjectForKey(_dictionary, key),
                           [](const CXPlist& item) { return isNumber(item) && CXDoubleValue(item) > 0.0; });
}

std::vector<std::string> DXRDeviceArchive::strings(const char* key) const
{
    return itemsIn<std::string>(safeObjectForKey(_dictionary, key),
                                [](const CXPlist& item) { return item.is_string(); });
}
