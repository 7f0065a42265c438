#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <dxr/CXRealtime.h>
#include <vector>

/// A ring buffer of interleaved frames between two threads.
/// Threads:   one thread writes, one thread reads.
/// Real time: everything but creation; nothing waits.
class FrameRing { // NOLINT(clang-analyzer-optin.performance.Padding): the padding separates cache lines
public:
    /// The capacity is at least `minFrames` frames of `channelCount` samples.
    FrameRing(uint32_t channelCount, uint64_t minFrames)
        : _channelCount(channelCount), _mask(std::bit_ceil(minFrames) - 1),
          _samples((_mask + 1) * channelCount)
    {}

    uint32_t channelCount() const noexcept { return _channelCount; }

    // -- The writer's side

    uint64_t writableFrames() const noexcept CX_REALTIME
    {
        return _mask + 1 - (_written.load(std::memory_order_relaxed) - _read.load(std::memory_order_acquire));
    }
    /// The frame `offset` after the last written one; offset < writableFrames().
    float* frameToWrite(uint64_t offset) noexcept CX_REALTIME
    {
        return &_samples[((_written.load(std::memory_order_relaxed) + offset) & _mask) * _channelCount];
    }
    /// Hands the next `frameCount` frames to the reader.
    void commitWrite(uint64_t frameCount) noexcept CX_REALTIME
    {
        _written.store(_written.load(std::memory_order_relaxed) + frameCount, std::memory_order_release);
    }

    // -- The reader's side

    uint64_t readableFrames() const noexcept CX_REALTIME
    {
        return _written.load(std::memory_order_acquire) - _read.load(std::memory_order_relaxed);
    }
    /// The frame `offset` after the last read one; offset < readableFrames().
    const float* frameToRead(uint64_t offset) const noexcept CX_REALTIME
    {
        return &_samples[((_read.load(std::memory_order_relaxed) + offset) & _mask) * _channelCount];
    }
    /// Returns the next `frameCount` frames to the writer.
    void commitRead(uint64_t frameCount) noexcept CX_REALTIME
    {
        _read.store(_read.load(std::memory_order_relaxed) + frameCount, std::memory_order_release);
    }

private:
    const uint32_t _channelCount;
    const uint64_t _mask; // the capacity in frames, a power of two, minus one
    std::vector<float> _samples;

    // The number of frames written and read so far; each is stored by one side only. The release of _written
    // pairs with the reader's acquire: samples are complete before they are counted. The release of _read
    // pairs with the writer's acquire: the reader has finished with samples before they are overwritten. Each
    // has its own cache line, for speed.
    alignas(64) std::atomic<uint64_t> _written{0};
    alignas(64) std::atomic<uint64_t> _read{0};
};
