#pragma once

#include "DeviceSelection.h"

/// A channel of the frames that are played, from 0.
struct ChannelShare {
    uint32_t channel;
    float gain = 1.0F;
};
/// The shares that each channel of a device plays; none is silence.
using ChannelMap = std::vector<std::vector<ChannelShare>>;

/// Channel for channel; a single one on both of the stereo pair: the device's, or the first two channels that
/// the user chose. Threads: any.
ChannelMap straightChannelMap(uint32_t frameChannels, const DeviceSelection& output);
/// The same if the device has enough channels, else a mix for its stereo pair or only channel: the channels
/// are taken for loudspeakers around the listener. Sums of full-scale samples stay within full scale.
ChannelMap downmixChannelMap(uint32_t frameChannels, const DeviceSelection& output);
