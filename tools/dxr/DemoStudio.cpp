#include "DemoStudio.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

/// A steady tone on the first channel, one that swells and fades on the second.
void makeTones(uint64_t firstFrame, uint32_t frameCount, uint32_t channelCount, double sampleRate,
               float* samples)
{
    constexpr double steadyAmplitude = 0.5;
    constexpr double swellingFrequency = 440.0; // Hz
    constexpr double swellsPerSecond = 0.4;
    constexpr double swellDecibels = 36.0;
    const auto turns = [&](double frequency, uint64_t frame) {
        return 2.0 * std::numbers::pi * std::fmod(frequency * static_cast<double>(frame) / sampleRate, 1.0);
    };
    for (uint32_t i = 0; i < frameCount; ++i) {
        const uint64_t frame = firstFrame + i;
        const double swell = 0.5 - 0.5 * std::cos(turns(swellsPerSecond, frame));
        const double amplitude = std::pow(10.0, -swellDecibels * swell / 20.0);
        samples[size_t{i} * channelCount] =
            static_cast<float>(steadyAmplitude * std::sin(turns(DemoStudio::toneFrequency, frame)));
        for (uint32_t channel = 1; channel < channelCount; ++channel)
            samples[size_t{i} * channelCount + channel] =
                static_cast<float>(amplitude * std::sin(turns(swellingFrequency, frame)));
    }
}

} // namespace

DemoStudio::DemoStudio(SimulatedBackend& backend, double seconds)
    : _played(std::make_shared<FrameRing>(1, static_cast<uint64_t>((seconds + 5.0) * sampleRate)))
{
    constexpr uint32_t oneClock = 7;
    const SimulatedSink keep = [played = _played](uint64_t, uint32_t frameCount, uint32_t channelCount,
                                                  double, const float* samples) {
        const uint64_t kept = samples ? std::min<uint64_t>(frameCount, played->writableFrames()) : 0;
        for (uint64_t frame = 0; frame < kept; ++frame)
            *played->frameToWrite(frame) = samples[frame * channelCount];
        played->commitWrite(kept);
    };
    backend.plug(aDevice()
                     .uid(generatorUID)
                     .name("Tone Generator")
                     .inputs(2)
                     .bufferFrameSize(cycleFrames)
                     .clockDomain(oneClock)
                     .canBeDefault(false)
                     .hears(SimulatedSource(&makeTones)));
    backend.plug(aDevice()
                     .uid(monitorsUID)
                     .name("Studio Monitors")
                     .outputs(2)
                     .bufferFrameSize(cycleFrames)
                     .clockDomain(oneClock)
                     .canBeDefault(false)
                     .playsInto(keep));
}

std::vector<float> DemoStudio::playedTone()
{
    std::vector<float> tone;
    const uint64_t count = _played->readableFrames();
    for (uint64_t frame = 0; frame < count; ++frame)
        tone.push_back(*_played->frameToRead(frame));
    _played->commitRead(count);
    tone.erase(tone.begin(), std::ranges::find_if(tone, [](float sample) { return sample != 0.0F; }));
    while (!tone.empty() && tone.back() == 0.0F)
        tone.pop_back();
    return tone;
}
