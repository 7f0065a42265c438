#pragma once

#include "DeviceSelection.h"

/// For each channel of a device, from 0, the channel of the frames that it plays; channelOfNone plays nothing.
using ChannelMap = std::vector<uint32_t>;
inline constexpr uint32_t channelOfNone = UINT32_MAX;

/// Channel for channel. A single channel goes to the `stereo` pair (from 1) of a device with more.
/// Threads: any.
ChannelMap straightChannelMap(uint32_t frameChannels, uint32_t deviceChannels, uint32_t stereoLeft,
                              uint32_t stereoRight);
/// The same for the channels that are meant of an output. Its stereo pair is the device's, or the first two of those
/// that the user chose.
ChannelMap straightChannelMap(uint32_t frameChannels, const DeviceSelection& output);
