#pragma once

#include "AudioRecords.h"
#include "CXRealtime.h"
#include "DXRChannelEntry.h"

#include <cstdint>
#include <span>

// Reads the buffer lists of a cycle: one buffer for each stream, with the stream's channels interleaved.
// Threads:   the cycle's.
// Real time: everything.

/// The frame count of the first buffer that has data.
uint32_t frameCountOf(const AudioBufferList* streamBuffers) CX_REALTIME;

/// Whether the list's streams have these `channelCounts`; a null list has none. Streams without channels are
/// ignored.
bool hasStreams(const AudioBufferList* streamBuffers, std::span<const uint32_t> channelCounts) CX_REALTIME;

/// Writes an entry for each channel, at most `room`; entries of a buffer with fewer than `frameCount` frames
/// are null.
void sampleBuffers(DXRChannelEntry* entries, uint32_t room, uint32_t frameCount,
                   const AudioBufferList* streamBuffers) CX_REALTIME;
