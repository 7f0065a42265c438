#pragma once

#include <cstdint>

/// The location of one channel of a device in one IO cycle: frame k is samples[k * stride].
struct DXRChannelEntry {
    float* samples;  ///< not owned; null if the channel has no data or is not used
    uint32_t stride; ///< in floats: the number of interleaved channels of its stream; 0 if null
};
