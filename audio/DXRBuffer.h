#pragma once

#include "CXBlock.h"
#include "CXExport.h"

#include <cstddef>
#include <cstdint>

/// A block of interleaved 32-bit float samples with their format.
///
/// Mixing floats limits each sum to [-1, 1]; NaN is kept. Floats are converted to 16-bit integers with a
/// scale of 32767 above zero and 32768 below, rounded away from zero and limited; NaN becomes 0. Integers are
/// converted to floats with scales of 1/32767 and 1/32768. Mixing 16-bit integers limits to -32768 … 32767.
/// Results are bit-identical on every processor.
/// Threads:   not synchronised; one thread at a time. The caller synchronises when it passes a buffer to
///            another thread.
/// Real time: everything but creation and descriptions; nothing here waits.
/// Fails:     memory that is passed in must hold channelCount() * frameCount() samples; this is not checked.
class DXR_EXPORT DXRBuffer final : public CXObject {
public:
    /// Called for one channel, counted from 1: its frame k is samples[k * stride].
    using ChannelBlock =
        CXBlock<void(uint32_t channel, uint32_t frameCount, float* samples, uint32_t stride)>;
    /// Called for all channels at once: frame k of channel c, from 0, is samples[c][k * strides[c]].
    using FramesBlock = CXBlock<void(uint32_t channelCount, uint32_t frameCount, float* const* samples,
                                     const uint32_t* strides)>;

    /// Asserts: a buffer cannot be created without a format.
    static CXRef<DXRBuffer> init();
    /// Creates a buffer of frameCount * channelCount samples at `sampleRate` Hz, silent if `zeroFill`.
    /// Allocates. Returns null if memory cannot be allocated.
    static CXRef<DXRBuffer> initWithSampleRate(double sampleRate, uint32_t frameCount, uint32_t channelCount,
                                               bool zeroFill = true);
    /// Creates a copy of the format and the samples. Allocates. Returns null if memory cannot be allocated.
    static CXRef<DXRBuffer> initWithBuffer(const DXRBuffer& buffer);
    /// Returns initWithBuffer(*this).
    CXRef<DXRBuffer> copy() const { return initWithBuffer(*this); }

    double sampleRate() const noexcept { return _sampleRate; } ///< Hz
    uint32_t frameCount() const noexcept { return _frameCount; }
    uint32_t channelCount() const noexcept { return _channelCount; }
    /// In an IO block: the time in host ticks at which the first frame of an input buffer was at the device,
    /// or at which that of an output buffer will be played. 0 if the device does not report times.
    uint64_t hostTime() const noexcept CX_REALTIME { return _hostTime; }
    void setHostTime(uint64_t ticks) noexcept CX_REALTIME { _hostTime = ticks; }
    /// Channel c, from 0, of frame k is samples()[k * channelCount() + c].
    float* samples() noexcept CX_REALTIME { return _samples; }
    const float* samples() const noexcept CX_REALTIME { return _samples; }

    /// Returns true if channel count, frame count and sample rate are equal. Returns false for null.
    bool isEqualCFS(const DXRBuffer* buffer) const noexcept CX_REALTIME;
    /// Sets all samples to 0.
    void mute() noexcept CX_REALTIME;

    /// Copies or mixes between buffers of the same format. If the formats differ or `buffer` is null, a copy
    /// fills its destination with silence, because samples at the wrong rate would be noise, and a mix adds
    /// nothing.
    void copyToBuffer(DXRBuffer* buffer) const noexcept CX_REALTIME;
    void copyFromBuffer(const DXRBuffer* buffer) noexcept CX_REALTIME;
    void mixToBuffer(DXRBuffer* buffer) const noexcept CX_REALTIME;
    void mixFromBuffer(const DXRBuffer* buffer) noexcept CX_REALTIME;

    /// Copies and mixes between this buffer and other memory, interleaved in the same way.
    void copyToInterleavedFloats(float* samples) const noexcept CX_REALTIME;
    void copyFromInterleavedFloats(const float* samples) noexcept CX_REALTIME;
    void mixToInterleavedFloats(float* samples) const noexcept CX_REALTIME;
    void mixFromInterleavedFloats(const float* samples) noexcept CX_REALTIME;
    void copyToInterleavedInt16s(int16_t* samples) const noexcept CX_REALTIME;
    void copyFromInterleavedInt16s(const int16_t* samples) noexcept CX_REALTIME;
    void mixToInterleavedInt16s(int16_t* samples) const noexcept CX_REALTIME;
    void mixFromInterleavedInt16s(const int16_t* samples) noexcept CX_REALTIME;

    /// Copies and mixes between this buffer and other memory with one array of frameCount() samples per
    /// channel.
    void copyToDeinterleavedFloats(float* const* channels) const noexcept CX_REALTIME;
    void copyFromDeinterleavedFloats(const float* const* channels) noexcept CX_REALTIME;
    void mixToDeinterleavedFloats(float* const* channels) const noexcept CX_REALTIME;
    void mixFromDeinterleavedFloats(const float* const* channels) noexcept CX_REALTIME;
    void copyToDeinterleavedInt16s(int16_t* const* channels) const noexcept CX_REALTIME;
    void copyFromDeinterleavedInt16s(const int16_t* const* channels) noexcept CX_REALTIME;
    void mixToDeinterleavedInt16s(int16_t* const* channels) const noexcept CX_REALTIME;
    void mixFromDeinterleavedInt16s(const int16_t* const* channels) noexcept CX_REALTIME;

    /// Calls `block` for channel `channel`, 1 … channelCount(). Does nothing for other numbers or an empty
    /// block.
    void processChannel(uint32_t channel, const ChannelBlock& block) CX_REALTIME;
    /// Calls processChannel() for every channel in order.
    void processChannelsWithBlock(const ChannelBlock& block) CX_REALTIME;
    /// Calls `block` once, with all channels. Its arrays are on the stack: 12 bytes per channel.
    void processFramesWithBlock(const FramesBlock& block) CX_REALTIME;

    /// "<DXRBuffer: address, channels/frames@rate hz>".
    std::string description() const override;

private:
    DXRBuffer(double sampleRate, uint32_t frameCount, uint32_t channelCount, float* samples) noexcept;
    ~DXRBuffer() override;

    size_t _sampleCount() const noexcept { return size_t{_channelCount} * _frameCount; }
    template <class Foreign, class Step>
    void _forEachTile(Foreign* const* channels, const Step& step) const noexcept;

    const uint32_t _channelCount;
    const uint32_t _frameCount;
    const double _sampleRate;
    uint64_t _hostTime = 0;
    float* const _samples; // a fast-allocator block, freed in the destructor
};
