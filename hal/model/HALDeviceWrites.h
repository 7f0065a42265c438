#pragma once

#include "HALDevice.h"

/// Writes a property of a device: checks the value against the device's state and calls the driver. Returns
/// 'who?' if the device does not have the property, 'nope' if the property cannot be set or not to this
/// value.
/// Waits: for the driver, until `deadline` at most.
HALStatus halWriteDevice(HALDevice& device, const AudioObjectPropertyAddress& address,
                         std::span<const std::byte> value, HALDeadline deadline);
/// Like halWriteDevice(), for one of the device's streams.
HALStatus halWriteStream(HALDevice& device, AudioObjectID streamID, const AudioObjectPropertyAddress& address,
                         std::span<const std::byte> value, HALDeadline deadline);

/// Stores the bytes in `value`; returns '!siz' if their number is not the size of a Value.
template <class Value> HALStatus halTakeValue(std::span<const std::byte> bytes, Value& value)
{
    if (bytes.size() != sizeof value)
        return kAudioHardwareBadPropertySizeError;
    std::memcpy(&value, bytes.data(), sizeof value);
    return kAudioHardwareNoError;
}
