#include "DXRBuffer.h"

#include "CXErrorAdditions.h"
#include "InstructionSet.h"
#include "NumberText.h"
#include "SampleKernels.h"
#include "TFA.h"

#include <algorithm>
#include <alloca.h>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t tileFrames = 256;
constexpr uint32_t tileChannels = 8;

/// Some frames of some channels, few enough to stay in the first-level cache while they are deinterleaved and
/// then converted, or converted and then interleaved.
struct Tile {
    uint32_t firstChannel, channelCount;
    uint32_t firstFrame, frameCount;
    float* interleaved; // first sample, in the buffer
    uint32_t stride;    // of `interleaved`, in floats

    /// Deinterleaves the tile into one array per channel.
    void deinterleave(float* const* to) const noexcept
    {
        instructionSet().samples->deinterleave(interleaved, to, channelCount, stride, frameCount);
    }
    void interleave(const float* const* from) const noexcept
    {
        instructionSet().samples->interleave(from, interleaved, channelCount, stride, frameCount);
    }
};

/// Memory for one tile with one array per channel. Uninitialised, because clearing it would cost as much as
/// using it.
struct Planes {
    Planes() noexcept // NOLINT(cppcoreguidelines-pro-type-member-init)
    {
        for (uint32_t c = 0; c < tileChannels; ++c)
            channels[c] = samples + size_t{c} * tileFrames;
    }
    float* channels[tileChannels];
    alignas(64) float samples[tileChannels * tileFrames];
};

} // namespace

CXRef<DXRBuffer> DXRBuffer::init()
{
    CX_ASSERT(false);
    return nullptr;
}

CXRef<DXRBuffer> DXRBuffer::initWithSampleRate(double sampleRate, uint32_t frameCount, uint32_t channelCount,
                                               bool zeroFill)
{
    constexpr size_t maxSamples = SIZE_MAX / sizeof(float);
    if (channelCount != 0 && frameCount > maxSamples / channelCount)
        return nullptr;
    auto* const samples = static_cast<float*>(TFA_malloc(size_t{channelCount} * frameCount * sizeof(float)));
    if (!samples)
        return nullptr;
    auto buffer = CXRef<DXRBuffer>::adopt(new DXRBuffer(sampleRate, frameCount, channelCount, samples));
    if (zeroFill)
        buffer->mute();
    return buffer;
}

CXRef<DXRBuffer> DXRBuffer::initWithBuffer(const DXRBuffer& buffer)
{
    CXRef<DXRBuffer> copy =
        initWithSampleRate(buffer._sampleRate, buffer._frameCount, buffer._channelCount, false);
    // Not copyFromBuffer(), because a buffer whose rate is NaN equals no buffer, not even its copy.
    if (copy)
        copy->copyFromInterleavedFloats(buffer._samples);
    return copy;
}

DXRBuffer::DXRBuffer(double sampleRate, uint32_t frameCount, uint32_t channelCount, float* samples) noexcept
    : _channelCount(channelCount), _frameCount(frameCount), _sampleRate(sampleRate), _samples(samples)
{}

DXRBuffer::~DXRBuffer()
{
    TFA_free(_samples);
}

bool DXRBuffer::isEqualCFS(const DXRBuffer* buffer) const noexcept
{
    return buffer && buffer->_sampleRate == _sampleRate && buffer->_frameCount == _frameCount &&
           buffer->_channelCount == _channelCount;
}

void DXRBuffer::mute() noexcept
{
    std::memset(_samples, 0, _sampleCount() * sizeof(float));
}

void DXRBuffer::copyToBuffer(DXRBuffer* buffer) const noexcept
{
    if (buffer)
        buffer->copyFromBuffer(this);
}

void DXRBuffer::copyFromBuffer(const DXRBuffer* buffer) noexcept
{
    if (isEqualCFS(buffer))
        copyFromInterleavedFloats(buffer->_samples);
    else
        mute();
}

void DXRBuffer::mixToBuffer(DXRBuffer* buffer) const noexcept
{
    if (buffer)
        buffer->mixFromBuffer(this);
}

void DXRBuffer::mixFromBuffer(const DXRBuffer* buffer) noexcept
{
    if (isEqualCFS(buffer))
        mixFromInterleavedFloats(buffer->_samples);
}

void DXRBuffer::copyToInterleavedFloats(float* samples) const noexcept
{
    if (samples != _samples)
        std::memcpy(samples, _samples, _sampleCount() * sizeof(float));
}

void DXRBuffer::copyFromInterleavedFloats(const float* samples) noexcept
{
    if (samples != _samples)
        std::memcpy(_samples, samples, _sampleCount() * sizeof(float));
}

void DXRBuffer::mixToInterleavedFloats(float* samples) const noexcept
{
    instructionSet().samples->mix(_samples, samples, _sampleCount());
}

void DXRBuffer::mixFromInterleavedFloats(const float* samples) noexcept
{
    instructionSet().samples->mix(samples, _samples, _sampleCount());
}

void DXRBuffer::copyToInterleavedInt16s(int16_t* samples) const noexcept
{
    instructionSet().samples->toInt16(_samples, samples, _sampleCount());
}

void DXRBuffer::copyFromInterleavedInt16s(const int16_t* samples) noexcept
{
    instructionSet().samples->fromInt16(samples, _samples, _sampleCount());
}

void DXRBuffer::mixToInterleavedInt16s(int16_t* samples) const noexcept
{
    instructionSet().samples->mixToInt16(_samples, samples, _sampleCount());
}

void DXRBuffer::mixFromInterleavedInt16s(const int16_t* samples) noexcept
{
    instructionSet().samples->mixFromInt16(samples, _samples, _sampleCount());
}

/// Calls `step` for every tile, with pointers to the tile's part of each channel's array in `channels`.
template <class Foreign, class Step>
void DXRBuffer::_forEachTile(Foreign* const* channels, const Step& step) const noexcept
{
    Tile tile{};
    tile.stride = _channelCount;
    for (size_t first = 0; first < _frameCount; first += tileFrames) {
        tile.firstFrame = static_cast<uint32_t>(first);
        tile.frameCount = std::min(tileFrames, _frameCount - tile.firstFrame);
        for (tile.firstChannel = 0; tile.firstChannel < _channelCount; tile.firstChannel += tileChannels) {
            tile.channelCount = std::min(tileChannels, _channelCount - tile.firstChannel);
            tile.interleaved = _samples + size_t{tile.firstFrame} * _channelCount + tile.firstChannel;
            Foreign* foreign[tileChannels];
            for (uint32_t c = 0; c < tile.channelCount; ++c)
                foreign[c] = channels[tile.firstChannel + c] + tile.firstFrame;
            step(tile, foreign);
        }
    }
}

void DXRBuffer::copyToDeinterleavedFloats(float* const* channels) const noexcept
{
    _forEachTile(channels, [](const Tile& tile, float* const* foreign) { tile.deinterleave(foreign); });
}

void DXRBuffer::copyFromDeinterleavedFloats(const float* const* channels) noexcept
{
    _forEachTile(channels, [](const Tile& tile, const float* const* foreign) { tile.interleave(foreign); });
}

void DXRBuffer::mixToDeinterleavedFloats(float* const* channels) const noexcept
{
    _forEachTile(channels, [](const Tile& tile, float* const* foreign) {
        const Planes planes;
        tile.deinterleave(planes.channels);
        for (uint32_t c = 0; c < tile.channelCount; ++c)
            instructionSet().samples->mix(planes.channels[c], foreign[c], tile.frameCount);
    });
}

void DXRBuffer::mixFromDeinterleavedFloats(const float* const* channels) noexcept
{
    _forEachTile(channels, [](const Tile& tile, const float* const* foreign) {
        const Planes planes;
        tile.deinterleave(planes.channels);
        for (uint32_t c = 0; c < tile.channelCount; ++c)
            instructionSet().samples->mix(foreign[c], planes.channels[c], tile.frameCount);
        tile.interleave(planes.channels);
    });
}

void DXRBuffer::copyToDeinterleavedInt16s(int16_t* const* channels) const noexcept
{
    _forEachTile(channels, [](const Tile& tile, int16_t* const* foreign) {
        const Planes planes;
        tile.deinterleave(planes.channels);
        for (uint32_t c = 0; c < tile.channelCount; ++c)
            instructionSet().samples->toInt16(planes.channels[c], foreign[c], tile.frameCount);
    });
}

void DXRBuffer::copyFromDeinterleavedInt16s(const int16_t* const* channels) noexcept
{
    _forEachTile(channels, [](const Tile& tile, const int16_t* const* foreign) {
        const Planes planes;
        for (uint32_t c = 0; c < tile.channelCount; ++c)
            instructionSet().samples->fromInt16(foreign[c], planes.channels[c], tile.frameCount);
        tile.interleave(planes.channels);
    });
}

void DXRBuffer::mixToDeinterleavedInt16s(int16_t* const* channels) const noexcept
{
    _forEachTile(channels, [](const Tile& tile, int16_t* const* foreign) {
        const Planes planes;
        tile.deinterleave(planes.channels);
        for (uint32_t c = 0; c < tile.channelCount; ++c)
            instructionSet().samples->mixToInt16(planes.channels[c], foreign[c], tile.frameCount);
    });
}

void DXRBuffer::mixFromDeinterleavedInt16s(const int16_t* const* channels) noexcept
{
    _forEachTile(channels, [](const Tile& tile, const int16_t* const* foreign) {
        const Planes planes;
        tile.deinterleave(planes.channels);
        for (uint32_t c = 0; c < tile.channelCount; ++c)
            instructionSet().samples->mixFromInt16(foreign[c], planes.channels[c], tile.frameCount);
        tile.interleave(planes.channels);
    });
}

void DXRBuffer::processChannel(uint32_t channel, const ChannelBlock& block)
{
    if (block && channel >= 1 && channel <= _channelCount)
        block(channel, _frameCount, _samples + (channel - 1), _channelCount);
}

void DXRBuffer::processChannelsWithBlock(const ChannelBlock& block)
{
    for (uint32_t channel = 1; channel <= _channelCount; ++channel)
        processChannel(channel, block);
}

void DXRBuffer::processFramesWithBlock(const FramesBlock& block)
{
    if (!block)
        return;
    auto** const samples = static_cast<float**>(alloca(_channelCount * sizeof(float*)));
    auto* const strides = static_cast<uint32_t*>(alloca(_channelCount * sizeof(uint32_t)));
    for (uint32_t c = 0; c < _channelCount; ++c) {
        samples[c] = _samples + c;
        strides[c] = _channelCount;
    }
    block(_channelCount, _frameCount, samples, strides);
}

std::string DXRBuffer::description() const
{
    char text[80];
    std::snprintf(text, sizeof text, "<DXRBuffer: %p, %u/%u@", static_cast<const void*>(this), _channelCount,
                  _frameCount);
    return text + numberText(_sampleRate) + "hz>";
}
