#pragma once

#include "AudioHardware.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

/// The properties of a hardware device that its references are made of. While they stay equal, so do the
/// references, which are expensive to build.
/// Threads:   a plain record.
struct DXRDeviceDescription {
    std::optional<std::string> uid;
    std::array<uint32_t, 2> channelCounts{}; ///< input, output
    uint32_t transportType = 0;
    // Only of a transport that could have a generic reference:
    std::optional<std::string> manufacturer, model, name;

    /// Asks the hardware. Only `uid` counts when that is missing.
    static DXRDeviceDescription ofDevice(AudioObjectID deviceID);
    uint32_t channelCount(bool input) const { return channelCounts[input ? 0 : 1]; }
    bool operator==(const DXRDeviceDescription&) const = default;
};
