#include "AlsaFormat.h"

#include <algorithm>
#include <cstring>

namespace {

/// `sample` within -1..1.
float clipped(float sample) noexcept
{
    const float low = sample >= -1.0F ? sample : (sample < -1.0F ? -1.0F : 0.0F);
    return low <= 1.0F ? low : 1.0F;
}

// Each reads and writes one sample of a format at an address of any alignment.

struct Signed32 {
    static constexpr size_t size = 4;
    static float read(const std::byte* from) noexcept
    {
        int32_t value;
        std::memcpy(&value, from, size);
        return static_cast<float>(value) * (1.0F / 2147483648.0F);
    }
    static void write(float sample, std::byte* to) noexcept
    {
        const auto value = static_cast<int32_t>(std::min(clipped(sample) * 2147483648.0F, 2147483520.0F));
        std::memcpy(to, &value, size);
    }
};

/// In the lower three bytes of four, or of three.
template <size_t byteCount> struct Signed24 {
    static constexpr size_t size = byteCount;
    static float read(const std::byte* from) noexcept
    {
        uint32_t value = 0;
        std::memcpy(&value, from, 3);
        return static_cast<float>(static_cast<int32_t>(value << 8)) * (1.0F / 2147483648.0F);
    }
    static void write(float sample, std::byte* to) noexcept
    {
        // Shifted to positive numbers, cutting off rounds.
        const double shifted = static_cast<double>(clipped(sample)) * 8388608.0 + 8388608.5;
        const int32_t value = std::min(static_cast<int32_t>(shifted) - 8388608, 8388607);
        std::memcpy(to, &value, size);
    }
};

struct Signed16 {
    static constexpr size_t size = 2;
    static float read(const std::byte* from) noexcept
    {
        int16_t value;
        std::memcpy(&value, from, size);
        return static_cast<float>(value) * (1.0F / 32768.0F);
    }
    static void write(float sample, std::byte* to) noexcept
    {
        const int32_t rounded = static_cast<int32_t>(clipped(sample) * 32768.0F + 32768.5F) - 32768;
        const auto value = static_cast<int16_t>(std::min(rounded, 32767));
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
        return;
    }
    if (ringChannels == channels) {
        for (size_t i = 0; i < frameCount * channels; ++i)
            Sample::write(samples[i], ring + i * Sample::size);
        return;
    }
    for (size_t frame = 0; frame < frameCount; ++frame, samples += channels)
        for (uint32_t channel = 0; channel < ringChannels; ++channel, ring += Sample::size)
            Sample::write(channel < channels ? samples[channel] : 0.0F, ring);
}

} // namespace

void alsaDecode(snd_pcm_format_t format, const std::byte* ring, uint32_t ringChannels, float* samples,
                uint32_t channels, size_t frameCount) noexcept
{
    switch (format) {
    case SND_PCM_FORMAT_S32:
        return decode<Signed32>(ring, ringChannels, samples, channels, frameCount);
    case SND_PCM_FORMAT_S24_3LE:
        return decode<Signed24<3>>(ring, ringChannels, samples, channels, frameCount);
    case SND_PCM_FORMAT_S24:
        return decode<Signed24<4>>(ring, ringChannels, samples, channels, frameCount);
    case SND_PCM_FORMAT_S16:
        return decode<Signed16>(ring, ringChannels, samples, channels, frameCount);
    default:
        return decode<Float32>(ring, ringChannels, samples, channels, frameCount);
    }
}

void alsaEncode(snd_pcm_format_t format, const float* samples, uint32_t channels, std::byte* ring,
                uint32_t ringChannels, size_t frameCount) noexcept
{
    switch (format) {
    case SND_PCM_FORMAT_S32:
        return encode<Signed32>(samples, channels, ring, ringChannels, frameCount);
    case SND_PCM_FORMAT_S24_3LE:
        return encode<Signed24<3>>(samples, channels, ring, ringChannels, frameCount);
    case SND_PCM_FORMAT_S24:
        return encode<Signed24<4>>(samples, channels, ring, ringChannels, frameCount);
    case SND_PCM_FORMAT_S16:
        return encode<Signed16>(samples, channels, ring, ringChannels, frameCount);
    default:
        return encode<Float32>(samples, channels, ring, ringChannels, frameCount);
    }
}
