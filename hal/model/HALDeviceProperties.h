#pragma once

#include "HALDeviceState.h"
#include "HALPropertyWriter.h"

/// The values from which a device's properties are read.
struct HALDeviceView {
    AudioObjectID objectID;
    const HALDeviceState& state;
    bool isRunning; ///< in this process
};

/// The addresses of one object whose values have changed.
struct HALObjectChange {
    AudioObjectID objectID;
    std::vector<AudioObjectPropertyAddress> addresses;
};

// One table of properties determines both what can be read and what is announced, so every readable property
// is announced. Two properties are not in the table: stream usage, which belongs to one callback, and the
// status of sub-devices, which changes in every cycle.

/// Writes the value of a device's property; returns 'who?' if the device has no property at that address.
HALStatus halReadDevice(const HALDeviceView& device, const AudioObjectPropertyAddress& address,
                        HALPropertyWriter& writer);
/// Like halReadDevice(), for the stream at `index` of a direction.
HALStatus halReadStream(const HALDeviceView& device, HALDirection direction, size_t index,
                        const AudioObjectPropertyAddress& address, HALPropertyWriter& writer);
/// Every address of the device, and of each of its streams, whose value differs between the two views.
/// Streams that were added or removed are left out.
std::vector<HALObjectChange> halChanges(const HALDeviceView& before, const HALDeviceView& after);

/// The one format of a stream: interleaved 32-bit floats at `rate` Hz.
AudioStreamBasicDescription halStreamFormat(uint32_t channelCount, double rate) noexcept;
/// The direction of an input or output scope; nothing for other scopes.
std::optional<HALDirection> halDirectionOfScope(uint32_t scope) noexcept;
