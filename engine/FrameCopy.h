#pragma once

#include "CXRealtime.h"
#include "DXRChannelEntry.h"

#include <cstdint>
#include <span>

/// Interleaved frames: frame k of channel c is samples[k * channelCount + c].
struct FrameBlock {
    float* samples;
    uint32_t channelCount;
    uint32_t frameCount;
};

/// Fills channel i of `frames` from the entry number map[i], counted from 1; 0 leaves the channel as it is, and an
/// entry without samples makes it silent. The map has a number for every channel. Bits are copied as they are.
/// Real time: yes. Neighbouring channels of one stream move together, whole streams in one piece.
void copyEntriesToFrames(const DXRChannelEntry* entries, std::span<const uint32_t> map,
                         const FrameBlock& frames) noexcept CX_REALTIME;
/// The other way; what has no entry, or one without samples, goes nowhere. Of two channels with one entry the later
/// stays.
void copyFramesToEntries(const FrameBlock& frames, std::span<const uint32_t> map,
                         const DXRChannelEntry* entries) noexcept CX_REALTIME;
