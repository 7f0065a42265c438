#pragma once

#include "HALDeviceState.h"
#include "HALPropertyWriter.h"

/// A device as its properties are read.
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

// One table of properties decides what is read and what is announced, so a readable property cannot go
// unannounced. Not in it: stream usage, which belongs to one callback, and the sub-devices' counters, which
// change in every cycle.

/// Writes the value of a device's property; 'who?' when the device has none at that address.
HALStatus halReadDevice(const HALDeviceView& device, const AudioObjectPropertyAddress& address,
                        HALPropertyWriter& writer);
/// The same for the stream at `index` of a direction.
HALStatus halReadStream(const HALDeviceView& device, HALDirection direction, size_t index,
                        const AudioObjectPropertyAddress& address, HALPropertyWriter& writer);
/// Every address of the device, and of each of its streams, whose value differs between two views of it.
/// Streams that have come or gone have none.
std::vector<HALObjectChange> halChanges(const HALDeviceView& before, const HALDeviceView& after);

/// The one format of a stream: interleaved 32-bit floats at `rate` Hz.
AudioStreamBasicDescription halStreamFormat(uint32_t channelCount, double rate) noexcept;
/// The direction of an input or output scope; nothing for any other.
std::optional<HALDirection> halDirectionOfScope(uint32_t scope) noexcept;
