#pragma once

#include "HALDevice.h"

/// Writes a property of a device: checks the value against its state and asks its driver. 'who?' for a
/// property that it does not have, 'nope' for one that cannot be set, or not so.
/// Waits: for the driver, until `deadline` at most.
HALStatus halWriteDevice(HALDevice& device, const AudioObjectPropertyAddress& address,
                         std::span<const std::byte> value, HALDeadline deadline);
/// The same for one of its streams.
HALStatus halWriteStream(HALDevice& device, AudioObjectID streamID, const AudioObjectPropertyAddress& address,
                         std::span<const std::byte> value, HALDeadline deadline);

/// The value's bytes as a Value; '!siz' for any other number of bytes.
template <class Value> HALStatus halTakeValue(std::span<const std::byte> bytes, Value& value)
{
    if (bytes.size() != sizeof value)
        return kAudioHardwareBadPropertySizeError;
    std::memcpy(&value, bytes.data(), sizeof value);
    return kAudioHardwareNoError;
}
