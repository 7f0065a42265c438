#pragma once

#include <cstring>
#include <dxr/AudioHardware.h>
#include <dxr/HALDirection.h>
#include <optional>
#include <string>
#include <vector>

/// kAudioObjectPropertyScopeInput or …Output.
constexpr uint32_t scopeOf(HALDirection direction) noexcept
{
    return direction == HALDirection::Input ? kAudioObjectPropertyScopeInput
                                            : kAudioObjectPropertyScopeOutput;
}

/// "input" or "output".
const char* nameOf(HALDirection direction) noexcept;
/// An address of the global scope, or of a direction, and an element of it.
AudioObjectPropertyAddress addressOf(uint32_t selector) noexcept;
AudioObjectPropertyAddress addressOf(uint32_t selector, HALDirection direction,
                                     uint32_t element = 0) noexcept;

/// The bytes of a property; nothing when the object is gone or has no such property. A list that grows
/// meanwhile is read again. Any thread.
std::optional<std::vector<std::byte>> readBytes(AudioObjectID objectID,
                                                const AudioObjectPropertyAddress& address);
/// The text of a property; nothing when it cannot be read.
std::optional<std::string> readString(AudioObjectID objectID, const AudioObjectPropertyAddress& address);

/// The value of a property of fixed size; nothing when it cannot be read.
template <class Value>
std::optional<Value> readValue(AudioObjectID objectID, const AudioObjectPropertyAddress& address)
{
    Value value{};
    uint32_t size = sizeof value;
    const HALStatus status = AudioObjectGetPropertyData(objectID, &address, 0, nullptr, &size, &value);
    if (status != kAudioHardwareNoError || size != sizeof value)
        return std::nullopt;
    return value;
}

/// The items of a list property; none when it cannot be read.
template <class Item>
std::vector<Item> readList(AudioObjectID objectID, const AudioObjectPropertyAddress& address)
{
    const std::vector<std::byte> bytes = readBytes(objectID, address).value_or(std::vector<std::byte>());
    std::vector<Item> items(bytes.size() / sizeof(Item));
    if (!items.empty())
        std::memcpy(items.data(), bytes.data(), items.size() * sizeof(Item));
    return items;
}

/// Writes a property. The hardware may take it over a little later.
template <class Value>
HALStatus writeValue(AudioObjectID objectID, const AudioObjectPropertyAddress& address, const Value& value)
{
    return AudioObjectSetPropertyData(objectID, &address, 0, nullptr, sizeof value, &value);
}

/// Whether the device is still there.
bool isThere(AudioObjectID deviceID);
/// A status as a user can read it: "the device is gone ('!dev')".
std::string textOf(HALStatus status);
