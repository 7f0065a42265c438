#include "DemoEngine.h"

#include "ToolFailure.h"

#include <algorithm>
#include <cmath>
#include <dxr/HostClock.h>
#include <numbers>

DemoEngine::DemoEngine(const CXRef<DXRDevice>& microphone, std::span<const CXRef<DXRDevice>> outputs,
                       double seconds)
    : _runner(DXRDeviceRunner::init()), _heard(frameCount),
      _mostCycles(static_cast<size_t>(seconds * sampleRate / frameCount)),
      _cycles(std::make_unique_for_overwrite<Cycle[]>(_mostCycles))
{
    if (!_runner)
        throw ToolFailure("cannot create a thread");
    _runner->setSampleRate(sampleRate);
    _runner->setFrameCount(frameCount);
    _runner->addDevice(microphone, DXRDeviceRunner::Channels{1},
                       [this](uint64_t sampleTime, DXRBuffer& buffer) { _hear(sampleTime, buffer); });
    for (const CXRef<DXRDevice>& output : outputs)
        _runner->addDevice(output, std::nullopt,
                           [this](uint64_t sampleTime, DXRBuffer& buffer) { _play(sampleTime, buffer); });
}

void DemoEngine::_hear(uint64_t sampleTime, const DXRBuffer& buffer) noexcept
{
    // The input's block is called in every cycle, and first, whether the microphone is there or not.
    const size_t cycle = _cycleCount.load(std::memory_order_relaxed);
    if (cycle < _mostCycles) {
        _cycles[cycle] = {platform::HostClock::nowTicks(), sampleTime};
        _cycleCount.store(cycle + 1, std::memory_order_release);
    }
    float peak = 0.0F;
    for (uint32_t frame = 0; frame < std::min(buffer.frameCount(), frameCount); ++frame) {
        _heard[frame] = buffer.samples()[size_t{frame} * buffer.channelCount()];
        peak = std::max(peak, std::fabs(_heard[frame]));
    }
    float before = _peak.load(std::memory_order_relaxed);
    while (peak > before && !_peak.compare_exchange_weak(before, peak, std::memory_order_relaxed)) {
    }
}

void DemoEngine::_play(uint64_t sampleTime, DXRBuffer& buffer) const noexcept
{
    for (uint32_t frame = 0; frame < std::min(buffer.frameCount(), frameCount); ++frame) {
        const double turns =
            std::fmod(static_cast<double>(sampleTime + frame) * (toneFrequency / sampleRate), 1.0);
        float* const samples = buffer.samples() + size_t{frame} * buffer.channelCount();
        samples[0] = _heard[frame];
        if (buffer.channelCount() > 1)
            samples[1] = static_cast<float>(toneAmplitude * std::sin(2.0 * std::numbers::pi * turns));
    }
}

std::span<const DemoEngine::Cycle> DemoEngine::cycles() const noexcept
{
    return {_cycles.get(), _cycleCount.load(std::memory_order_acquire)};
}
