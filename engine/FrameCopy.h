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

/// Fills channel i of `frames` from entry map[i], counted from 1. If map[i] is 0, the channel is not changed;
/// if the entry has no samples, it is silenced. The map has a number for every channel. Bits are copied
/// unchanged.
/// Real time: yes. Neighbouring channels of one stream are copied together, whole streams in one piece.
void copyEntriesToFrames(const DXRChannelEntry* entries, std::span<const uint32_t> map,
                         const FrameBlock& frames) noexcept CX_REALTIME;
/// The reverse. A channel without an entry, or whose entry has no samples, is discarded. If two channels have
/// the same entry, the later one is stored.
void copyFramesToEntries(const FrameBlock& frames, std::span<const uint32_t> map,
                         const DXRChannelEntry* entries) noexcept CX_REALTIME;
