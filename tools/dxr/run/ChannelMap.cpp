#include "ChannelMap.h"

#include <algorithm>

namespace {

/// The channels that play stereo, counted from 0.
std::array<uint32_t, 2> stereoPair(const DeviceSelection& output)
{
    constexpr std::array<uint32_t, 2> firstTwo{1, 2};
    const auto pair = output.report[HALDirection::Output].stereoChannels.value_or(firstTwo);
    const auto isThere = [&](uint32_t channel) { return channel >= 1 && channel <= output.channels.size(); };
    return !output.areChannelsChosen && isThere(pair[0]) && isThere(pair[1])
               ? std::array{pair[0] - 1, pair[1] - 1}
               : std::array<uint32_t, 2>{0, 1};
}

/// The position of each channel, in the order of sound files: L and R in front, l and r behind or beside the
/// listener, C in the front centre, c in the rear centre. -, the low-frequency effects, is not mixed.
std::string sidesOf(uint32_t channelCount)
{
    constexpr std::string_view known[] = {"",      "C",      "LR",      "LRC",     "LRlr",
                                          "LRClr", "LRC-lr", "LRC-clr", "LRC-lrlr"};
    if (channelCount < std::size(known))
        return std::string(known[channelCount]);
    std::string pairs;
    while (pairs.size() < channelCount)
        pairs += "LR";
    return pairs.substr(0, channelCount);
}

/// Mixes the channels at the positions `full`, and those at `less` at -3 dB. The gains add up to 1.
std::vector<ChannelShare> sharesOf(std::string_view sides, std::string_view full, std::string_view less)
{
    constexpr float lessGain = 0.70710678F;
    std::vector<ChannelShare> shares;
    float sum = 0.0F;
    for (uint32_t channel = 0; channel < sides.size(); ++channel) {
        const float gain = full.find(sides[channel]) != full.npos   ? 1.0F
                           : less.find(sides[channel]) != less.npos ? lessGain
                                                                    : 0.0F;
        if (gain > 0.0F)
            shares.push_back({channel, gain});
        sum += gain;
    }
    for (ChannelShare& share : shares)
        share.gain /= sum;
    return shares;
}

} // namespace

ChannelMap straightChannelMap(uint32_t frameChannels, const DeviceSelection& output)
{
    ChannelMap map(output.channels.size());
    if (frameChannels == 1 && map.size() > 1) {
        for (const uint32_t channel : stereoPair(output))
            map[channel] = {{0}};
        return map;
    }
    for (uint32_t channel = 0; channel < std::min<size_t>(frameChannels, map.size()); ++channel)
        map[channel] = {{channel}};
    return map;
}

ChannelMap downmixChannelMap(uint32_t frameChannels, const DeviceSelection& output)
{
    ChannelMap map(output.channels.size());
    const std::string sides = sidesOf(frameChannels);
    if (frameChannels <= map.size())
        return straightChannelMap(frameChannels, output);
    if (map.size() == 1)
        return {sharesOf(sides, "LRC", "lrc")};
    const std::array<uint32_t, 2> pair = stereoPair(output);
    map[pair[0]] = sharesOf(sides, "L", "Clc");
    map[pair[1]] = sharesOf(sides, "R", "Crc");
    return map;
}
