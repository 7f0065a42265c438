#pragma once

#include "ChannelMap.h"
#include "FrameRing.h"

#include <dxr/AudioHardware.h>

// Between the buffers of an IO cycle, one per stream, and frames with all channels side by side.
// Threads:   any.
// Real time: yes.

/// The frames of the cycle; 0 when no buffer has data, or there is no list.
uint32_t cycleFrameCount(const AudioBufferList* list) noexcept CX_REALTIME;
/// Copies the first `frameCount` frames of the cycle to the writer's side of the ring, which has room for
/// them, and commits them. Channels that the cycle lacks are silent, those that the ring lacks are left out.
void copyCycleToRing(const AudioBufferList& list, uint64_t frameCount, FrameRing& ring) noexcept CX_REALTIME;
/// Copies `frameCount` readable frames of the ring to the cycle, from its frame `firstFrame` on, and commits
/// them.
void copyRingToCycle(FrameRing& ring, uint64_t frameCount, const ChannelMap& map, AudioBufferList& list,
                     uint64_t firstFrame) noexcept CX_REALTIME;
/// Copies the cycle's input to its output.
void copyCycleToCycle(const AudioBufferList& from, const ChannelMap& map, AudioBufferList& to) noexcept
    CX_REALTIME;
