#pragma once

#include "CXRealtime.h"

#include <alsa/asoundlib.h>
#include <cstddef>
#include <cstdint>
#include <span>

/// A sample format of a card's ring buffer, with the conversion of interleaved frames. If one side has more
/// channels than the other, its additional channels are silent or ignored.
/// Real time: decode() and encode().
struct AlsaFormat {
    snd_pcm_format_t number;
    size_t sampleBytes;
    void (*decode)(const std::byte* ring, uint32_t ringChannels, float* samples, uint32_t channels,
                   size_t frameCount) noexcept;
    /// Rounds to nearest and clips; NaN becomes 0. Null `samples` mean silence.
    void (*encode)(const float* samples, uint32_t channels, std::byte* ring, uint32_t ringChannels,
                   size_t frameCount) noexcept;

    /// The formats that the driver supports, in order of preference.
    static const std::span<const AlsaFormat> all;
};
