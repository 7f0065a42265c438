#pragma once

#include "DeviceSelection.h"

/// A channel of the played frames, counted from 0, and its gain.
struct ChannelShare {
    uint32_t channel;
    float gain = 1.0F;
};
/// For each channel of a device, the shares that it plays; a channel without shares is silent.
using ChannelMap = std::vector<std::vector<ChannelShare>>;

/// Maps each channel to the device channel of the same number. A single channel is mapped to both channels of
/// the stereo pair: the device's, or the first two channels that the user chose. Threads: any.
ChannelMap straightChannelMap(uint32_t frameChannels, const DeviceSelection& output);
/// Like straightChannelMap() if the device has enough channels. Otherwise mixes the channels, as loudspeakers
/// around the listener, for the stereo pair or the only channel. Full-scale samples stay within full scale.
ChannelMap downmixChannelMap(uint32_t frameChannels, const DeviceSelection& output);
