#pragma once

#include <atomic>
#include <cstdint>
#include <dxr/CXRealtime.h>
#include <vector>

/// Frames of interleaved samples on their way from one thread to another, in order, none twice.
/// Threads:   one writes, one reads; each side's functions on its thread only.
/// Real time: everything but making it; nothing here waits.
class FrameRing { // NOLINT(clang-analyzer-optin.performance.Padding): the padding keeps the two sides apart
public:
    /// Room for at least `minFrames` frames of `channelCount` samples.
    FrameRing(uint32_t channelCount, uint64_t minFrames);

    uint32_t channelCount() const noexcept { return _channelCount; }
    uint64_t capacity() const noexcept { return _mask + 1; }

    // -- The writer's side

    /// Frames that can be written now; it only grows until the writer writes.
    uint64_t writableFrames() const noexcept CX_REALTIME;
    /// The samples of the frame `offset` after the last written one; offset < writableFrames().
    float* frameToWrite(uint64_t offset) noexcept CX_REALTIME;
    /// Hands the next `frameCount` frames to the reader.
    void commitWrite(uint64_t frameCount) noexcept CX_REALTIME;

    // -- The reader's side

    /// Frames that can be read now; it only grows until the reader reads.
    uint64_t readableFrames() const noexcept CX_REALTIME;
    /// The samples of the frame `offset` after the last read one; offset < readableFrames().
    const float* frameToRead(uint64_t offset) const noexcept CX_REALTIME;
    /// Gives the next `frameCount` frames' room back to the writer.
    void commitRead(uint64_t frameCount) noexcept CX_REALTIME;

private:
    const uint32_t _channelCount;
    const uint64_t _mask; // capacity in frames, a power of two, minus one
    std::vector<float> _samples;

    // Frames written and read so far. Each is stored by one side only. The release of _written pairs with the
    // reader's acquire: samples are in place before they are counted. The release of _read pairs with the
    // writer's acquire: the reader is through with samples before their room is given back. On lines of their
    // own, so that the two threads do not slow each other down.
    alignas(64) std::atomic<uint64_t> _written{0};
    alignas(64) std::atomic<uint64_t> _read{0};
};
