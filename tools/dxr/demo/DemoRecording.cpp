#include "DemoRecording.h"

#include <dxr/HostClock.h>
#include <utility>

DemoRecording::DemoRecording(double sampleRate, double seconds)
    : _sampleRate(sampleRate), _blockFrames(static_cast<size_t>(blockSeconds * sampleRate)),
      _maxBlocks(static_cast<size_t>(seconds / blockSeconds)),
      _samples(std::make_unique_for_overwrite<float[]>(_maxBlocks * _blockFrames)),
      _blockTicks(std::make_unique_for_overwrite<uint64_t[]>(_maxBlocks))
{}

SimulatedSink DemoRecording::sink()
{
    return [this](uint64_t firstFrame, uint32_t frameCount, uint32_t channels, double, const float* samples) {
        if (samples)
            _keep(firstFrame, frameCount, channels, samples);
    };
}

void DemoRecording::_keep(uint64_t sampleTime, uint32_t frameCount, uint32_t channels,
                          const float* samples) noexcept
{
    const uint64_t now = dxr::HostClock::nowTicks();
    if (std::exchange(_nextSampleTime, sampleTime + frameCount) != sampleTime)
        _filledFrames = 0; // the device disconnected, or lost cycles
    size_t block = _blockCount.load(std::memory_order_relaxed);
    for (uint32_t frame = 0; frame < frameCount && block < _maxBlocks; ++frame) {
        if (_filledFrames == 0)
            _blockTicks[block] = now + static_cast<uint64_t>(frame / _sampleRate * 1e9);
        _samples[block * _blockFrames + _filledFrames] = samples[size_t{frame} * channels];
        _filledFrames = (_filledFrames + 1) % _blockFrames;
        block += _filledFrames == 0;
    }
    _blockCount.store(block, std::memory_order_release);
}

std::vector<DemoRecording::Block> DemoRecording::blocks() const
{
    std::vector<Block> blocks;
    for (size_t block = 0; block < _blockCount.load(std::memory_order_acquire); ++block)
        blocks.push_back({_blockTicks[block], {&_samples[block * _blockFrames], _blockFrames}});
    return blocks;
}
