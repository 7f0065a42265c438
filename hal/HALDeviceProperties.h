#pragma once

#include "HALDeviceState.h"
#include "HALPropertyWriter.h"

/// A device as its properties are read from it.
struct HALDeviceView {
    AudioObjectID objectID;
    const HALDeviceState& state;
    bool isRunning;
};

/// Writes the value of a device's property; 'who?' when the device has none at that address. Translations and
/// stream usage, which need more than the state, are not here.
HALStatus halAnswerDevice(const HALDeviceView& device, const AudioObjectPropertyAddress& address,
                          HALPropertyWriter& writer);
/// The same for the stream at `index` of a direction.
HALStatus halAnswerStream(const HALDeviceView& device, HALDirection direction, size_t index,
                          const AudioObjectPropertyAddress& address, HALPropertyWriter& writer);
/// The one format of a stream: interleaved 32-bit floats at `rate` Hz.
AudioStreamBasicDescription halStreamFormat(uint32_t channelCount, double rate) noexcept;
/// The direction of an input or output scope; nothing for any other.
std::optional<HALDirection> halDirectionOfScope(uint32_t scope) noexcept;
