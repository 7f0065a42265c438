#include "ChannelCopy.h"

#include <algorithm>

namespace {

/// One channel of a cycle: sample k is samples[k * stride]; null samples for a channel without data.
struct Channel {
    float* samples = nullptr;
    uint32_t stride = 0;
    uint32_t frameCount = 0;
};

/// Calls `use` with the number, from 0, and the place of every channel of the list.
template <class Use> void forEachChannel(const AudioBufferList& list, Use use) noexcept
{
    uint32_t number = 0;
    for (uint32_t i = 0; i < list.numberBuffers; ++i) {
        const AudioBuffer& buffer = list.buffers[i];
        for (uint32_t channel = 0; channel < buffer.numberChannels; ++channel, ++number) {
            if (!buffer.data)
                continue;
            const auto frames =
                static_cast<uint32_t>(buffer.dataByteSize / (sizeof(float) * buffer.numberChannels));
            use(number, Channel{static_cast<float*>(buffer.data) + channel, buffer.numberChannels, frames});
        }
    }
}

Channel channelAt(const AudioBufferList& list, uint32_t wanted) noexcept
{
    Channel found;
    forEachChannel(list, [&](uint32_t number, const Channel& channel) {
        if (number == wanted)
            found = channel;
    });
    return found;
}

} // namespace

uint32_t cycleFrameCount(const AudioBufferList* list) noexcept
{
    uint32_t frames = 0;
    for (uint32_t i = 0; list && i < list->numberBuffers; ++i) {
        const AudioBuffer& buffer = list->buffers[i];
        if (buffer.data && buffer.numberChannels > 0)
            frames = std::max(
                frames, static_cast<uint32_t>(buffer.dataByteSize / (sizeof(float) * buffer.numberChannels)));
    }
    return frames;
}

void copyCycleToRing(const AudioBufferList& list, uint64_t frameCount, FrameRing& ring) noexcept
{
    for (uint64_t frame = 0; frame < frameCount; ++frame)
        std::fill_n(ring.frameToWrite(frame), ring.channelCount(), 0.0F);
    forEachChannel(list, [&](uint32_t number, const Channel& channel) {
        if (number >= ring.channelCount())
            return;
        for (uint64_t frame = 0; frame < std::min<uint64_t>(frameCount, channel.frameCount); ++frame)
            ring.frameToWrite(frame)[number] = channel.samples[frame * channel.stride];
    });
    ring.commitWrite(frameCount);
}

void copyRingToCycle(FrameRing& ring, uint64_t frameCount, const ChannelMap& map, AudioBufferList& list,
                     uint64_t firstFrame) noexcept
{
    forEachChannel(list, [&](uint32_t number, const Channel& channel) {
        if (number >= map.size() || map[number] >= ring.channelCount())
            return;
        for (uint64_t frame = 0; frame < frameCount && firstFrame + frame < channel.frameCount; ++frame)
            channel.samples[(firstFrame + frame) * channel.stride] = ring.frameToRead(frame)[map[number]];
    });
    ring.commitRead(frameCount);
}

void copyCycleToCycle(const AudioBufferList& from, const ChannelMap& map, AudioBufferList& to) noexcept
{
    forEachChannel(to, [&](uint32_t number, const Channel& channel) {
        if (number >= map.size() || map[number] == channelOfNone)
            return;
        const Channel source = channelAt(from, map[number]);
        for (size_t frame = 0; frame < std::min(source.frameCount, channel.frameCount); ++frame)
            channel.samples[frame * channel.stride] = source.samples[frame * source.stride];
    });
}
