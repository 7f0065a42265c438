#pragma once

#include "DeviceSelection.h"

/// For each channel of a device what it plays of some frames: channels of theirs, from 0, each with a gain. None is silence.
struct ChannelShare {
    uint32_t channel;
    float gain = 1.0F;
};
using ChannelMap = std::vector<std::vector<ChannelShare>>;

/// Channel for channel; a single one on both of the stereo pair, which is the device's, or the first two channels that the
/// user chose. Threads: any.
ChannelMap straightChannelMap(uint32_t frameChannels, const DeviceSelection& output);
/// All channels of the frames on the stereo pair of a device that has fewer, or on its only one, as loudspeakers around a
/// listener are heard from the front. No sum of full-scale samples is above full scale.
ChannelMap downmixChannelMap(uint32_t frameChannels, const DeviceSelection& output);
