#include "DemoRecording.h"

#include <algorithm>
#include <cmath>
#include <dxr/HostClock.h>

DemoRecording::DemoRecording(double sampleRate, double seconds)
    : _sampleRate(sampleRate), _maxFrames(static_cast<size_t>(seconds * sampleRate)),
      _mostCycles(_maxFrames / 32), // shorter cycles are not asked for
      _frames(std::make_unique_for_overwrite<Frame[]>(_maxFrames)),
      _cycles(std::make_unique_for_overwrite<Cycle[]>(_mostCycles))
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
    const size_t cycle = _cycleCount.load(std::memory_order_relaxed);
    const size_t frame = cycle == 0 ? 0 : _cycles[cycle - 1].frame + _cycles[cycle - 1].frameCount;
    if (cycle == _mostCycles || frame + frameCount > _maxFrames)
        return;
    float peak = 0.0F;
    for (size_t k = 0; k < frameCount; ++k) {
        for (size_t channel = 0; channel < channelCount; ++channel) {
            const float sample = samples[k * channels + std::min<size_t>(channel, channels - 1)];
            _frames[frame + k][channel] = sample;
            peak = std::max(peak, std::fabs(sample));
        }
    }
    _cycles[cycle] = {platform::HostClock::nowTicks(), sampleTime, frame, frameCount};
    _cycleCount.store(cycle + 1, std::memory_order_release);
    float before = _peak.load(std::memory_order_relaxed);
    while (peak > before && !_peak.compare_exchange_weak(before, peak, std::memory_order_relaxed)) {
    }
}

std::span<const DemoRecording::Cycle> DemoRecording::cycles() const noexcept
{
    return {_cycles.get(), _cycleCount.load(std::memory_order_acquire)};
}

std::span<const DemoRecording::Frame> DemoRecording::frames() const noexcept
{
    const std::span<const Cycle> all = cycles();
    return {_frames.get(), all.empty() ? 0 : all.back().frame + all.back().frameCount};
}

std::vector<DemoRecording::Stretch> DemoRecording::stretches() const
{
    std::vector<Stretch> stretches;
    uint64_t nextSampleTime = 0;
    const std::span<const Frame> all = frames();
    size_t from = 0;
    for (const Cycle& cycle : cycles()) {
        if (stretches.empty() || cycle.sampleTime != nextSampleTime) {
            stretches.push_back({cycle.hostTicks, {}});
            from = cycle.frame;
        }
        nextSampleTime = cycle.sampleTime + cycle.frameCount;
        stretches.back().frames = all.subspan(from, cycle.frame + cycle.frameCount - from);
    }
    return stretches;
}

uint64_t DemoRecording::lostFrames() const
{
    uint64_t lost = 0, nextSampleTime = 0;
    for (const Cycle& cycle : cycles()) {
        // A device that was plugged in anew begins at an earlier time.
        if (nextSampleTime != 0 && cycle.sampleTime > nextSampleTime)
            lost += cycle.sampleTime - nextSampleTime;
        nextSampleTime = cycle.sampleTime + cycle.frameCount;
    }
    return lost;
}
