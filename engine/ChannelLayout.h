#pragma once

#include "AudioHardware.h"

#include <array>
#include <string>
#include <vector>

/// One device among those whose channels a device shows side by side.
struct ChannelPart {
    std::string uid;
    std::array<uint32_t, 2> channelCounts; ///< input, output
    bool isThere;                          ///< else its channels are silent, but keep their place

    friend bool operator==(const ChannelPart&, const ChannelPart&) = default;
};

/// A device's channels: an aggregate's are its parts' in their order, any other device is its own one part.
using ChannelLayout = std::vector<ChannelPart>;

/// Read from the hardware alone. Waits for it: not on an IO thread.
ChannelLayout channelLayoutOf(AudioObjectID deviceID, const std::string& uid);

/// For each channel of `node` in the direction the channel of `context` that carries it, from 1. 0 for one of a part that
/// is absent or that `context` does not have.
std::vector<uint32_t> channelMapBetween(const ChannelLayout& node, const ChannelLayout& context,
                                        bool isInput);

/// The channels of each stream of the direction, as a cycle brings them; streams without channels left out.
std::vector<uint32_t> streamChannelCountsOf(AudioObjectID deviceID, bool isInput);
