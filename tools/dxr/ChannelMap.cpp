#include "ChannelMap.h"

#include <algorithm>

ChannelMap straightChannelMap(uint32_t frameChannels, uint32_t deviceChannels, uint32_t stereoLeft,
                              uint32_t stereoRight)
{
    ChannelMap map(deviceChannels, channelOfNone);
    for (uint32_t channel = 0; channel < std::min(frameChannels, deviceChannels); ++channel)
        map[channel] = channel;
    const bool hasPair =
        stereoLeft >= 1 && stereoRight >= 1 && stereoLeft <= deviceChannels && stereoRight <= deviceChannels;
    if (frameChannels == 1 && deviceChannels > 1 && hasPair) {
        map[0] = channelOfNone;
        map[stereoLeft - 1] = map[stereoRight - 1] = 0;
    }
    return map;
}

ChannelMap straightChannelMap(uint32_t frameChannels, const DeviceSelection& output)
{
    constexpr std::array<uint32_t, 2> firstTwo{1, 2};
    const DirectionReport& side = output.report[HALDirection::Output];
    const auto stereo = output.areChannelsChosen ? firstTwo : side.stereoChannels.value_or(firstTwo);
    return straightChannelMap(frameChannels, static_cast<uint32_t>(output.channels.size()), stereo[0],
                              stereo[1]);
}
