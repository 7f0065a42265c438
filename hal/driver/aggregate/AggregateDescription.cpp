#include "AggregateDescription.h"

#include "Utf8.h"

#include <algorithm>

namespace {

/// The entry of `key`, or a null value if there is none.
const CXPlist& entry(const CXPlist& dictionary, const char* key)
{
    static const CXPlist none;
    const auto found = dictionary.find(key);
    return found == dictionary.end() ? none : *found;
}

bool isNumberOrAbsent(const CXPlist& value)
{
    return value.is_null() || value.is_number() || value.is_boolean();
}

bool isTrue(const CXPlist& value)
{
    return value.is_boolean() ? value.get<bool>() : value.is_number() && value.get<double>() != 0.0;
}

bool isFilledString(const CXPlist& value)
{
    return value.is_string() && !value.get_ref<const std::string&>().empty();
}

} // namespace

std::optional<AggregateDescription> AggregateDescription::of(const CXPlist& dictionary)
{
    if (!dictionary.is_object())
        return std::nullopt;
    const CXPlist& uid = entry(dictionary, "uid");
    const CXPlist& name = entry(dictionary, "name");
    const CXPlist& subDevices = entry(dictionary, "subdevices");
    const CXPlist& clock = entry(dictionary, "master");
    const CXPlist& stacked = entry(dictionary, "stacked");
    if (!isFilledString(uid) || !(name.is_string() || name.is_null()) || !subDevices.is_array() ||
        subDevices.empty() || !(clock.is_string() || clock.is_null()) ||
        !isNumberOrAbsent(entry(dictionary, "private")) || !isNumberOrAbsent(stacked) || isTrue(stacked))
        return std::nullopt;

    AggregateDescription description;
    description.dictionary = dictionary;
    description.uid = uid.get<std::string>();
    description.name = dxr::utf8Replaced(name.is_string() ? name.get<std::string>() : description.uid);
    for (const CXPlist& each : subDevices) {
        if (!each.is_object() || !isFilledString(entry(each, "uid")) ||
            !isNumberOrAbsent(entry(each, "drift")))
            return std::nullopt;
        const CXPlist& drift = entry(each, "drift");
        SubDevice subDevice{entry(each, "uid").get<std::string>(), drift.is_null() || isTrue(drift)};
        if (std::ranges::find(description.subDevices, subDevice.uid, &SubDevice::uid) ==
            description.subDevices.end())
            description.subDevices.push_back(std::move(subDevice));
    }
    if (clock.is_string()) {
        const auto found =
            std::ranges::find(description.subDevices, clock.get<std::string>(), &SubDevice::uid);
        if (found == description.subDevices.end())
            return std::nullopt;
        description.clock = static_cast<size_t>(found - description.subDevices.begin());
    }
    return description;
}
