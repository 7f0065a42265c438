#pragma once

#include "DriftController.h"
#include "HALIOProcTable.h"

#include <atomic>
#include <vector>

/// A ring buffer of frames from one device's IO thread to another's, one array per channel, with the times of
/// the cycles that wrote them. Frames are numbered from 0, without a limit.
/// Threads:   one writer and one reader, which may be the same; each side's functions on its thread only.
/// Real time: everything except creation; nothing here waits.
class BridgeRing { // NOLINT(clang-analyzer-optin.performance.Padding): the padding keeps the two sides apart
public:
    /// Allocates at least `minFrames` frames. A read may extend beyond the end of the memory by up to
    /// `repeatedFrames` frames: a copy of the ring's first frames is kept there.
    BridgeRing(uint32_t channelCount, uint64_t minFrames, uint32_t repeatedFrames);

    uint64_t capacity() const noexcept { return _mask + 1; }

    // -- The writer's side

    uint64_t writableFrames() const noexcept CX_REALTIME;
    /// The number of the next frame to be written.
    uint64_t writtenFrame() const noexcept CX_REALTIME { return _written.load(std::memory_order_relaxed); }
    /// Copies a block's channels to the ring's channels from `firstChannel` on, `offset` frames after the
    /// last frame written; silence if the block has no samples. offset + frameCount <= writableFrames().
    void put(const HALStreamBlock& block, uint32_t firstChannel, uint64_t offset,
             uint32_t frameCount) noexcept CX_REALTIME;
    /// Makes the next `frameCount` frames available to the reader.
    void commitWrite(uint64_t frameCount) noexcept CX_REALTIME;
    /// Reports a cycle, whose frames must have been committed, to the reader. Does nothing if the reader has
    /// not taken reports for so long that their buffer is full.
    void report(const WriterCycle& cycle) noexcept CX_REALTIME;

    // -- The reader's side

    /// The available frames: from firstFrame() to before endFrame().
    uint64_t firstFrame() const noexcept CX_REALTIME { return _read.load(std::memory_order_relaxed); }
    uint64_t endFrame() const noexcept CX_REALTIME { return _written.load(std::memory_order_acquire); }
    /// One array per channel; frame k is at index k & mask().
    const float* const* channels() const noexcept CX_REALTIME { return _channels.data(); }
    uint64_t mask() const noexcept CX_REALTIME { return _mask; }
    /// Frees the frames before `frame`, which must not be after endFrame().
    void release(uint64_t frame) noexcept CX_REALTIME;
    /// Takes the next reported cycle; returns false if there is none.
    bool take(WriterCycle& cycle) noexcept CX_REALTIME;

private:
    static constexpr uint64_t cycleCapacity = 1024;

    void _repeat(uint32_t firstChannel, uint32_t channelCount, uint64_t at, uint64_t count) noexcept
        CX_REALTIME;

    const uint64_t _mask; // capacity in frames, a power of two, minus one
    const uint32_t _repeated;
    std::vector<float> _samples;
    std::vector<const float*> _channels;
    std::vector<float*> _places; // the writer's scratch: one pointer per channel
    std::vector<WriterCycle> _cycles;

    // The numbers of frames and cycles written and read so far. Each is stored by one side only. The writer's
    // release stores pair with the reader's acquire loads: samples and cycles are stored before they are
    // counted. The reader's release stores pair with the writer's acquire loads: the reader has finished with
    // frames and cycles before their memory is reused. Frames are counted before their cycle is reported, so
    // a reader that first takes cycles and then calls endFrame() has all frames of those cycles.
    alignas(64) std::atomic<uint64_t> _written{0};
    std::atomic<uint64_t> _cyclesReported{0};
    alignas(64) std::atomic<uint64_t> _read{0};
    std::atomic<uint64_t> _cyclesTaken{0};
};
