#pragma once

#include "AudioHardware.h"

#include <optional>

/// The value of a hardware property of fixed size; empty if it cannot be read or has another size.
/// Real time: depends on the property and the calling thread; the function itself allocates nothing.
template <class Value>
std::optional<Value> propertyValue(AudioObjectID objectID, const AudioObjectPropertyAddress& address)
{
    if (objectID == kAudioObjectUnknown)
        return std::nullopt;
    Value value{};
    uint32_t size = sizeof value;
    const HALStatus status = AudioObjectGetPropertyData(objectID, &address, 0, nullptr, &size, &value);
    return status == kAudioHardwareNoError && size == sizeof value ? std::optional(value) : std::nullopt;
}

/// Returns false if the hardware refuses the value.
template <class Value>
bool setPropertyValue(AudioObjectID objectID, const AudioObjectPropertyAddress& address, Value value)
{
    return objectID != kAudioObjectUnknown &&
           AudioObjectSetPropertyData(objectID, &address, 0, nullptr, sizeof value, &value) ==
               kAudioHardwareNoError;
}
