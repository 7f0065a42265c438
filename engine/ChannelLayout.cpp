#include "ChannelLayout.h"

#include "AggregateComposition.h"
#include "CXPlistAdditions.h"
#include "DXRPropertyAddress.h"
#include "QDL.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <set>

namespace {

std::set<std::string> activePartsOf(AudioObjectID deviceID)
{
    std::set<std::string> uids;
    for (const AudioObjectID part :
         DXRPropertyAddress::aggregateActiveSubDeviceList()->uint32ArrayForObjectID(deviceID)) {
        if (std::optional<std::string> uid = QDLAudioDeviceUIDFromDeviceID(part))
            uids.insert(*std::move(uid));
    }
    return uids;
}

} // namespace

ChannelLayout channelLayoutOf(AudioObjectID deviceID, const std::string& uid)
{
    const CXPlist composition = aggregateComposition(deviceID);
    if (composition.is_null())
        return {{uid,
                 {QDLAudioDeviceChannelCount(deviceID, true), QDLAudioDeviceChannelCount(deviceID, false)},
                 true}};
    const std::set<std::string> active = activePartsOf(deviceID);
    ChannelLayout layout;
    const CXPlist parts = vtObjectForKey(composition, aggregateSubdevicesKey, CXPlistKind::Array);
    for (const CXPlist& part : parts) {
        const CXPlist partUID = vtObjectForKey(part, aggregateUIDKey, CXPlistKind::String);
        const auto channelsOf = [&](bool isInput) {
            return static_cast<uint32_t>(safeIntegerForKey(part, aggregateChannelsKey(isInput)));
        };
        std::string text = partUID.is_string() ? partUID.get<std::string>() : std::string();
        const bool isThere = active.contains(text);
        layout.push_back({std::move(text), {channelsOf(true), channelsOf(false)}, isThere});
    }
    return layout;
}

std::vector<uint32_t> channelMapBetween(const ChannelLayout& node, const ChannelLayout& context, bool isInput)
{
    const size_t direction = isInput ? 0 : 1;
    std::vector<uint32_t> map;
    for (const ChannelPart& part : node) {
        uint32_t offset = 0, carried = 0;
        for (const ChannelPart& other : context) {
            if (part.isThere && other.uid == part.uid) {
                carried = other.channelCounts[direction];
                break;
            }
            offset += other.channelCounts[direction];
        }
        for (uint32_t channel = 1; channel <= part.channelCounts[direction]; ++channel)
            map.push_back(channel <= carried ? offset + channel : 0);
    }
    return map;
}

std::vector<uint32_t> streamChannelCountsOf(AudioObjectID deviceID, bool isInput)
{
    const auto data = DXRPropertyAddress::deviceStreamConfiguration(isInput ? kAudioObjectPropertyScopeInput
                                                                            : kAudioObjectPropertyScopeOutput)
                          ->dataForObjectID(deviceID);
    std::vector<uint32_t> counts;
    if (!data || data->size() < offsetof(AudioBufferList, buffers))
        return counts;
    uint32_t streams = 0;
    std::memcpy(&streams, data->data(), sizeof streams);
    for (size_t at = offsetof(AudioBufferList, buffers);
         streams > 0 && at + sizeof(AudioBuffer) <= data->size(); at += sizeof(AudioBuffer), --streams) {
        AudioBuffer buffer;
        std::memcpy(&buffer, data->data() + at, sizeof buffer);
        if (buffer.numberChannels > 0)
            counts.push_back(buffer.numberChannels);
    }
    return counts;
}
