#pragma once

#include "DriftController.h"
#include "HALIOProcTable.h"

#include <atomic>
#include <vector>

/// Frames on their way from one device's IO thread to another's, channel by channel, with the times of the
/// cycles that wrote them. Frames are numbered from 0, without an end.
/// Threads:   one writes, one reads, which may be the same; each side's functions on its thread only.
/// Real time: everything but making it; nothing here waits.
class BridgeRing { // NOLINT(clang-analyzer-optin.performance.Padding): the padding keeps the two sides apart
public:
    /// Room for at least `minFrames` frames. The last `repeatedFrames` at most of a read may reach over the
    /// end of the memory: as many frames from its beginning are repeated there.
    BridgeRing(uint32_t channelCount, uint64_t minFrames, uint32_t repeatedFrames);

    uint64_t capacity() const noexcept { return _mask + 1; }

    // -- The writer's side

    uint64_t writableFrames() const noexcept CX_REALTIME;
    /// The number of the next frame that is written.
    uint64_t writtenFrame() const noexcept CX_REALTIME { return _written.load(std::memory_order_relaxed); }
    /// Puts a block's channels in the place of the ring's from `firstChannel` on, `offset` frames after the
    /// last written one; silence where the block has no samples. offset + frameCount <= writableFrames().
    void put(const HALStreamBlock& block, uint32_t firstChannel, uint64_t offset,
             uint32_t frameCount) noexcept CX_REALTIME;
    /// Hands the next `frameCount` frames to the reader.
    void commitWrite(uint64_t frameCount) noexcept CX_REALTIME;
    /// Reports a cycle, whose frames were written before, to the reader. Does nothing when it has not asked
    /// for so long that there is no room.
    void report(const WriterCycle& cycle) noexcept CX_REALTIME;

    // -- The reader's side

    /// The frames that are there: from firstFrame() to before endFrame().
    uint64_t firstFrame() const noexcept CX_REALTIME { return _read.load(std::memory_order_relaxed); }
    uint64_t endFrame() const noexcept CX_REALTIME { return _written.load(std::memory_order_acquire); }
    /// One array per channel; frame k lies at k & mask().
    const float* const* channels() const noexcept CX_REALTIME { return _channels.data(); }
    uint64_t mask() const noexcept CX_REALTIME { return _mask; }
    /// Gives the room of the frames before `frame` back; not after endFrame().
    void release(uint64_t frame) noexcept CX_REALTIME;
    /// The next cycle that was reported; false when there is none.
    bool take(WriterCycle& cycle) noexcept CX_REALTIME;

private:
    static constexpr uint64_t cycleCapacity = 1024;

    void _repeat(uint32_t firstChannel, uint32_t channelCount, uint64_t at, uint64_t count) noexcept
        CX_REALTIME;

    const uint64_t _mask; // capacity in frames, a power of two, minus one
    const uint32_t _repeated;
    std::vector<float> _samples;
    std::vector<const float*> _channels;
    std::vector<float*> _places; // the writer's scratch, a pointer per channel
    std::vector<WriterCycle> _cycles;

    // Numbers of frames, and of cycles, written and read so far. Each is stored by one side only. The release
    // of what was written pairs with the reader's acquire: samples and cycles are in place before they are
    // counted. The release of what was read pairs with the writer's acquire: the reader is through with them
    // before their room is given back. Frames are counted before their cycle is reported, so a reader that
    // takes cycles first and reads endFrame() afterwards has every frame that was reported.
    alignas(64) std::atomic<uint64_t> _written{0};
    std::atomic<uint64_t> _cyclesReported{0};
    alignas(64) std::atomic<uint64_t> _read{0};
    std::atomic<uint64_t> _cyclesTaken{0};
};
