#include "AlsaFormat.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

/// Clips `sample` to -1..1; NaN becomes 0.
float clipped(float sample) noexcept
{
    const float low = sample >= -1.0F ? sample : (sample < -1.0F ? -1.0F : 0.0F);
    return low <= 1.0F ? low : 1.0F;
}

// Each type reads and writes one sample of a format at an address of any alignment.

/// An integer in the lower `bits` of `byteCount` bytes.
template <size_t byteCount, unsigned bits> struct Integer {
    static constexpr size_t size = byteCount;
    static float read(const std::byte* from) noexcept
    {
        uint32_t value = 0;
        std::memcpy(&value, from, bits / 8);
        return static_cast<float>(static_cast<int32_t>(value << (32 - bits))) * 0x1p-31F;
    }
    static void write(float sample, std::byte* to) noexcept
    {
        int32_t value = 0;
        if constexpr (bits == 32) { // more bits than a float has: no rounding needed
            value = static_cast<int32_t>(std::min(clipped(sample) * 0x1p31F, 0x1.fffffep30F));
        } else {
            // Shifted to positive numbers, so that truncation rounds to nearest.
            constexpr int32_t half = 1 << (bits - 1);
            const double shifted = static_cast<double>(clipped(sample)) * half + (half + 0.5);
            value = std::min(static_cast<int32_t>(shifted) - half, half - 1);
        }
        std::memcpy(to, &value, size);
    }
};

struct Float32 {
    static constexpr size_t size = 4;
    static float read(const std::byte* from) noexcept
    {
        float value;
        std::memcpy(&value, from, size);
        return value;
    }
    static void write(float sample, std::byte* to) noexcept
    {
        const float value = clipped(sample);
        std::memcpy(to, &value, size);
    }
};

template <class Sample>
void decode(const std::byte* ring, uint32_t ringChannels, float* samples, uint32_t channels,
            size_t frameCount) noexcept
{
    if (ringChannels == channels) {
        for (size_t i = 0; i < frameCount * channels; ++i)
            samples[i] = Sample::read(ring + i * Sample::size);
        return;
    }
    for (size_t frame = 0; frame < frameCount; ++frame, ring += ringChannels * Sample::size)
        for (uint32_t channel = 0; channel < channels; ++channel)
            *samples++ = channel < ringChannels ? Sample::read(ring + channel * Sample::size) : 0.0F;
}

template <class Sample>
void encode(const float* samples, uint32_t channels, std::byte* ring, uint32_t ringChannels,
            size_t frameCount) noexcept
{
    if (!samples) {
        std::memset(ring, 0, frameCount * ringChannels * Sample::size);
    } else if (ringChannels == channels) {
        for (size_t i = 0; i < frameCount * channels; ++i)
            Sample::write(samples[i], ring + i * Sample::size);
    } else {
        for (size_t frame = 0; frame < frameCount; ++frame, samples += channels)
            for (uint32_t channel = 0; channel < ringChannels; ++channel, ring += Sample::size)
                Sample::write(channel < channels ? samples[channel] : 0.0F, ring);
    }
}

template <class Sample> constexpr AlsaFormat formatOf(snd_pcm_format_t number)
{
    return {number, Sample::size, decode<Sample>, encode<Sample>};
}

constexpr std::array formats{
    formatOf<Integer<4, 32>>(SND_PCM_FORMAT_S32), formatOf<Integer<3, 24>>(SND_PCM_FORMAT_S24_3LE),
    formatOf<Integer<4, 24>>(SND_PCM_FORMAT_S24), formatOf<Integer<2, 16>>(SND_PCM_FORMAT_S16),
    formatOf<Float32>(SND_PCM_FORMAT_FLOAT)};

} // namespace

constinit const std::span<const AlsaFormat> AlsaFormat::all = formats;
