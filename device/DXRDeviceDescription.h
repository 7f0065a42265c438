#pragma once

#include "AudioHardware.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

/// The properties of a hardware device from which its references are built. References are expensive to
/// build; they need no rebuilding while these properties stay equal.
/// Threads:   a plain record.
struct DXRDeviceDescription {
    std::optional<std::string> uid;
    std::array<uint32_t, 2> channelCounts{}; ///< input, output
    uint32_t transportType = 0;
    // Read only for transports that can have a generic reference:
    std::optional<std::string> manufacturer, model, name;

    /// Reads the hardware. A value that cannot be read is that of `known`, an earlier description of the
    /// device with this ID. If `uid` is empty, the other fields are not read.
    static DXRDeviceDescription ofDevice(AudioObjectID deviceID, const DXRDeviceDescription& known);
    /// The same without an earlier description.
    static DXRDeviceDescription ofDevice(AudioObjectID deviceID);
    uint32_t channelCount(bool input) const { return channelCounts[input ? 0 : 1]; }
    bool operator==(const DXRDeviceDescription&) const = default;
};
