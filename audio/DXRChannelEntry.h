#pragma once

#include <cstdint>

/// Where one channel of a device lies in one IO cycle: frame k is samples[k * stride].
struct DXRChannelEntry {
    float* samples;  ///< not owned; null for a channel that has no data or that nobody uses
    uint32_t stride; ///< floats: the interleaved channels of its stream; 0 for a null entry
};
