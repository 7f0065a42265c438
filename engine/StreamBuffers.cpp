#include "StreamBuffers.h"

namespace {

/// All buffers of a list: `numberBuffers` of them, although one is declared.
std::span<const AudioBuffer> buffersOf(const AudioBufferList* list)
{
    return {&list->buffers[0], list->numberBuffers};
}

/// The frame count of a buffer; 0 if it has no channels or no data.
uint32_t frameCountOf(const AudioBuffer& buffer)
{
    if (buffer.numberChannels == 0 || !buffer.data)
        return 0;
    return static_cast<uint32_t>(buffer.dataByteSize / (uint64_t{buffer.numberChannels} * sizeof(float)));
}

} // namespace

uint32_t frameCountOf(const AudioBufferList* streamBuffers)
{
    uint32_t frames = 0;
    for (const AudioBuffer& buffer : buffersOf(streamBuffers)) {
        if (frames == 0)
            frames = frameCountOf(buffer);
    }
    return frames;
}

bool hasStreams(const AudioBufferList* streamBuffers, std::span<const uint32_t> channelCounts)
{
    size_t stream = 0;
    for (uint32_t i = 0; streamBuffers && i < streamBuffers->numberBuffers; ++i) {
        const uint32_t channels = buffersOf(streamBuffers)[i].numberChannels;
        if (channels == 0)
            continue;
        if (stream == channelCounts.size() || channelCounts[stream] != channels)
            return false;
        ++stream;
    }
    return stream == channelCounts.size();
}

void sampleBuffers(DXRChannelEntry* entries, uint32_t room, uint32_t frameCount,
                   const AudioBufferList* streamBuffers)
{
    uint32_t filled = 0;
    for (const AudioBuffer& buffer : buffersOf(streamBuffers)) {
        auto* const samples = frameCountOf(buffer) >= frameCount ? static_cast<float*>(buffer.data) : nullptr;
        for (uint32_t channel = 0; channel < buffer.numberChannels && filled < room; ++channel)
            entries[filled++] = {samples ? samples + channel : nullptr, buffer.numberChannels};
    }
}
