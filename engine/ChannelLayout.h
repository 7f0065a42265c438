#pragma once

#include "AudioHardware.h"

#include <array>
#include <string>
#include <vector>

/// One of the devices whose channels a device presents side by side.
struct ChannelPart {
    std::string uid;
    std::array<uint32_t, 2> channelCounts; ///< input, output
    bool isThere;                          ///< if not, its channels are silent but keep their numbers

    friend bool operator==(const ChannelPart&, const ChannelPart&) = default;
};

/// The channels of a device: for an aggregate the channels of its parts, in their order; for any other device
/// one part, the device itself.
using ChannelLayout = std::vector<ChannelPart>;

/// Reads only the hardware, not DXRDevice. Waits for the hardware: not on an IO thread.
ChannelLayout channelLayoutOf(AudioObjectID deviceID, const std::string& uid);

/// For each channel of `node` in the direction: the number, from 1, of the channel of `context` that carries
/// it. 0 for a channel of a part that is absent or that `context` does not have.
std::vector<uint32_t> channelMapBetween(const ChannelLayout& node, const ChannelLayout& context,
                                        bool isInput);

/// The channel count of each stream of the direction, as a cycle's buffer list has them. Streams without
/// channels are left out.
std::vector<uint32_t> streamChannelCountsOf(AudioObjectID deviceID, bool isInput);
