#pragma once

#include "CXRealtime.h"

#include <alsa/asoundlib.h>
#include <cstddef>
#include <cstdint>
#include <span>

/// A sample format of a card's ring, and interleaved frames between the ring and ours. Where one side has more channels
/// than the other, the further ones are silent or left out.
/// Real time: decode() and encode().
struct AlsaFormat {
    snd_pcm_format_t number;
    size_t sampleBytes;
    void (*decode)(const std::byte* ring, uint32_t ringChannels, float* samples, uint32_t channels,
                   size_t frameCount) noexcept;
    /// Rounds to the nearest and clips; NaN is silence. Null `samples` are silence.
    void (*encode)(const float* samples, uint32_t channels, std::byte* ring, uint32_t ringChannels,
                   size_t frameCount) noexcept;

    /// Those that the driver converts, the preferred ones first.
    static const std::span<const AlsaFormat> all;
};
