#include "FrameRing.h"

#include <bit>

FrameRing::FrameRing(uint32_t channelCount, uint64_t minFrames)
    : _channelCount(channelCount), _mask(std::bit_ceil(minFrames) - 1), _samples((_mask + 1) * channelCount)
{}

uint64_t FrameRing::writableFrames() const noexcept
{
    return capacity() - (_written.load(std::memory_order_relaxed) - _read.load(std::memory_order_acquire));
}

float* FrameRing::frameToWrite(uint64_t offset) noexcept
{
    return &_samples[((_written.load(std::memory_order_relaxed) + offset) & _mask) * _channelCount];
}

void FrameRing::commitWrite(uint64_t frameCount) noexcept
{
    _written.store(_written.load(std::memory_order_relaxed) + frameCount, std::memory_order_release);
}

uint64_t FrameRing::readableFrames() const noexcept
{
    return _written.load(std::memory_order_acquire) - _read.load(std::memory_order_relaxed);
}

const float* FrameRing::frameToRead(uint64_t offset) const noexcept
{
    return &_samples[((_read.load(std::memory_order_relaxed) + offset) & _mask) * _channelCount];
}

void FrameRing::commitRead(uint64_t frameCount) noexcept
{
    _read.store(_read.load(std::memory_order_relaxed) + frameCount, std::memory_order_release);
}
