#include "BridgeRing.h"

#include "InstructionSet.h"
#include "SampleKernels.h"

#include <algorithm>
#include <bit>

BridgeRing::BridgeRing(uint32_t channelCount, uint64_t minFrames, uint32_t repeatedFrames)
    : _mask(std::bit_ceil(std::max<uint64_t>(minFrames, repeatedFrames)) - 1), _repeated(repeatedFrames),
      _samples((_mask + 1 + repeatedFrames) * channelCount), _places(channelCount), _cycles(cycleCapacity)
{
    for (uint32_t channel = 0; channel < channelCount; ++channel)
        _channels.push_back(_samples.data() + (_mask + 1 + repeatedFrames) * channel);
}

uint64_t BridgeRing::writableFrames() const noexcept
{
    return capacity() - (_written.load(std::memory_order_relaxed) - _read.load(std::memory_order_acquire));
}

void BridgeRing::put(const HALStreamBlock& block, uint32_t firstChannel, uint64_t offset,
                     uint32_t frameCount) noexcept
{
    const uint64_t from = _written.load(std::memory_order_relaxed) + offset;
    for (uint32_t done = 0; done < frameCount;) {
        const uint64_t at = (from + done) & _mask;
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(frameCount - done, capacity() - at));
        for (uint32_t channel = 0; channel < block.channelCount; ++channel) {
            _places[channel] = const_cast<float*>(_channels[firstChannel + channel]) + at;
            if (!block.samples)
                std::fill_n(_places[channel], count, 0.0F);
        }
        if (block.samples)
            instructionSet().samples->deinterleave(block.samples + size_t{done} * block.channelCount,
                                                   _places.data(), block.channelCount, block.channelCount,
                                                   count);
        if (at < _repeated)
            _repeat(firstChannel, block.channelCount, at, std::min<uint64_t>(count, _repeated - at));
        done += count;
    }
}

void BridgeRing::_repeat(uint32_t firstChannel, uint32_t channelCount, uint64_t at, uint64_t count) noexcept
{
    for (uint32_t channel = 0; channel < channelCount; ++channel) {
        float* samples = const_cast<float*>(_channels[firstChannel + channel]);
        std::copy_n(samples + at, count, samples + capacity() + at);
    }
}

void BridgeRing::commitWrite(uint64_t frameCount) noexcept
{
    _written.store(_written.load(std::memory_order_relaxed) + frameCount, std::memory_order_release);
}

void BridgeRing::report(const WriterCycle& cycle) noexcept
{
    const uint64_t reported = _cyclesReported.load(std::memory_order_relaxed);
    if (reported - _cyclesTaken.load(std::memory_order_acquire) == cycleCapacity)
        return;
    _cycles[reported % cycleCapacity] = cycle;
    _cyclesReported.store(reported + 1, std::memory_order_release);
}

void BridgeRing::release(uint64_t frame) noexcept
{
    _read.store(frame, std::memory_order_release);
}

bool BridgeRing::take(WriterCycle& cycle) noexcept
{
    const uint64_t taken = _cyclesTaken.load(std::memory_order_relaxed);
    if (taken == _cyclesReported.load(std::memory_order_acquire))
        return false;
    cycle = _cycles[taken % cycleCapacity];
    _cyclesTaken.store(taken + 1, std::memory_order_release);
    return true;
}
