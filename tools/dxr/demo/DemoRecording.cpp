#include "DemoRecording.h"

#include <dxr/HostClock.h>

DemoRecording::DemoRecording(double sampleRate, double seconds)
    : _sampleRate(sampleRate), _maxFrames(static_cast<size_t>(seconds * sampleRate)),
      _maxCycles(_maxFrames / 32), // shorter cycles are not asked for
      _samples(std::make_unique_for_overwrite<float[]>(_maxFrames)),
      _cycles(std::make_unique_for_overwrite<Cycle[]>(_maxCycles))
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
    const size_t first = cycle == 0 ? 0 : _cycles[cycle - 1].first + _cycles[cycle - 1].frameCount;
    if (cycle == _maxCycles || first + frameCount > _maxFrames)
        return;
    for (size_t k = 0; k < frameCount; ++k)
        _samples[first + k] = samples[k * channels];
    _cycles[cycle] = {dxr::HostClock::nowTicks(), sampleTime, first, frameCount};
    _cycleCount.store(cycle + 1, std::memory_order_release);
}

std::vector<DemoRecording::Stretch> DemoRecording::stretches() const
{
    std::vector<Stretch> stretches;
    uint64_t nextSampleTime = 0;
    size_t from = 0;
    for (const Cycle& cycle : std::span(_cycles.get(), _cycleCount.load(std::memory_order_acquire))) {
        if (stretches.empty() || cycle.sampleTime != nextSampleTime) {
            stretches.push_back({cycle.hostTicks, {}});
            from = cycle.first;
        }
        nextSampleTime = cycle.sampleTime + cycle.frameCount;
        stretches.back().samples = {&_samples[from], cycle.first + cycle.frameCount - from};
    }
    return stretches;
}
