#pragma once

#include "CXBlock.h"
#include "CXExport.h"

#include <cstddef>
#include <cstdint>

/// A block of interleaved 32-bit float samples and the format they are in.
///
/// Float mixes limit each sum to [-1, 1]; a NaN stays. Floats become 16-bit numbers at a scale of 32767 above
/// zero and 32768 below, rounded away from zero and limited; NaN becomes 0. Back, the scales are 1/32767 and
/// 1/32768. Mixes of 16-bit numbers are limited to -32768 … 32767. Results are the same to the bit on every
/// processor.
/// Threads:   unlocked; one thread at a time. The caller synchronises when it passes a buffer to another
///            thread.
/// Real time: everything but creation and descriptions; nothing here waits.
/// Fails:     foreign memory must hold channelCount() * frameCount() samples; nothing checks it.
class DXR_EXPORT DXRBuffer final : public CXObject {
public:
    /// Called for one channel, counted from 1: frame k of it is samples[k * stride].
    using ChannelBlock =
        CXBlock<void(uint32_t channel, uint32_t frameCount, float* samples, uint32_t stride)>;
    /// Called for all channels at once: frame k of channel c, from 0, is samples[c][k * strides[c]].
    using FramesBlock = CXBlock<void(uint32_t channelCount, uint32_t frameCount, float* const* samples,
                                     const uint32_t* strides)>;

    /// Forbidden: a buffer has a format. Fails an assertion.
    static CXRef<DXRBuffer> init();
    /// frameCount * channelCount samples at `sampleRate` Hz, silent when `zeroFill`. Allocates. Null when
    /// there is no memory for so many.
    static CXRef<DXRBuffer> initWithSampleRate(double sampleRate, uint32_t frameCount, uint32_t channelCount,
                                               bool zeroFill = true);
    /// A copy of format and samples. Allocates. Null when there is no memory.
    static CXRef<DXRBuffer> initWithBuffer(const DXRBuffer& buffer);
    /// initWithBuffer of this one.
    CXRef<DXRBuffer> copy() const { return initWithBuffer(*this); }

    double sampleRate() const noexcept { return _sampleRate; } ///< Hz
    uint32_t frameCount() const noexcept { return _frameCount; }
    uint32_t channelCount() const noexcept { return _channelCount; }
    /// In an IO block: when the first frame was at the device, of input, or will be played, of output; in
    /// host ticks, 0 when the device does not say.
    uint64_t hostTime() const noexcept CX_REALTIME { return _hostTime; }
    void setHostTime(uint64_t ticks) noexcept CX_REALTIME { _hostTime = ticks; }
    /// Channel c, from 0, of frame k is samples()[k * channelCount() + c].
    float* samples() noexcept CX_REALTIME { return _samples; }
    const float* samples() const noexcept CX_REALTIME { return _samples; }

    /// The same channel count, frame count and sample rate. None is never equal.
    bool isEqualCFS(const DXRBuffer* buffer) const noexcept CX_REALTIME;
    /// Silence.
    void mute() noexcept CX_REALTIME;

    /// Between buffers of one format. A copy from or to a buffer of another format, or from none, leaves
    /// silence in its destination: samples at the wrong rate would be noise. A mix then adds nothing.
    void copyToBuffer(DXRBuffer* buffer) const noexcept CX_REALTIME;
    void copyFromBuffer(const DXRBuffer* buffer) noexcept CX_REALTIME;
    void mixToBuffer(DXRBuffer* buffer) const noexcept CX_REALTIME;
    void mixFromBuffer(const DXRBuffer* buffer) noexcept CX_REALTIME;

    /// To and from foreign memory, interleaved as here.
    void copyToInterleavedFloats(float* samples) const noexcept CX_REALTIME;
    void copyFromInterleavedFloats(const float* samples) noexcept CX_REALTIME;
    void mixToInterleavedFloats(float* samples) const noexcept CX_REALTIME;
    void mixFromInterleavedFloats(const float* samples) noexcept CX_REALTIME;
    void copyToInterleavedInt16s(int16_t* samples) const noexcept CX_REALTIME;
    void copyFromInterleavedInt16s(const int16_t* samples) noexcept CX_REALTIME;
    void mixToInterleavedInt16s(int16_t* samples) const noexcept CX_REALTIME;
    void mixFromInterleavedInt16s(const int16_t* samples) noexcept CX_REALTIME;

    /// To and from foreign memory with one array of frameCount() samples per channel.
    void copyToDeinterleavedFloats(float* const* channels) const noexcept CX_REALTIME;
    void copyFromDeinterleavedFloats(const float* const* channels) noexcept CX_REALTIME;
    void mixToDeinterleavedFloats(float* const* channels) const noexcept CX_REALTIME;
    void mixFromDeinterleavedFloats(const float* const* channels) noexcept CX_REALTIME;
    void copyToDeinterleavedInt16s(int16_t* const* channels) const noexcept CX_REALTIME;
    void copyFromDeinterleavedInt16s(const int16_t* const* channels) noexcept CX_REALTIME;
    void mixToDeinterleavedInt16s(int16_t* const* channels) const noexcept CX_REALTIME;
    void mixFromDeinterleavedInt16s(const int16_t* const* channels) noexcept CX_REALTIME;

    /// Calls `block` for channel 1 … channelCount(); for any other number, and for no block, does nothing.
    void processChannel(uint32_t channel, const ChannelBlock& block) CX_REALTIME;
    /// processChannel for every channel in order.
    void processChannelsWithBlock(const ChannelBlock& block) CX_REALTIME;
    /// Calls `block` once, with every channel. Its arrays are on the stack: 12 bytes a channel.
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
