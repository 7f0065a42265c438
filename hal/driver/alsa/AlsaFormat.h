#pragma once

#include "CXRealtime.h"

#include <alsa/asoundlib.h>
#include <array>
#include <cstddef>
#include <cstdint>

/// The sample formats that the driver converts, the preferred ones first.
inline constexpr std::array alsaFormats{SND_PCM_FORMAT_S32, SND_PCM_FORMAT_S24_3LE, SND_PCM_FORMAT_S24,
                                        SND_PCM_FORMAT_S16, SND_PCM_FORMAT_FLOAT};

// Interleaved frames between a card's ring and ours. Where one side has more channels than the other, the further ones
// are silent or left out. `format` is one of alsaFormats.
// Real time: yes.

void alsaDecode(snd_pcm_format_t format, const std::byte* ring, uint32_t ringChannels, float* samples,
                uint32_t channels, size_t frameCount) noexcept CX_REALTIME;
/// Rounds to the nearest and clips; NaN is silence. Null `samples` are silence.
void alsaEncode(snd_pcm_format_t format, const float* samples, uint32_t channels, std::byte* ring,
                uint32_t ringChannels, size_t frameCount) noexcept CX_REALTIME;
