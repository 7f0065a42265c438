#include "SimulatedSignal.h"

#include <cmath>
#include <numbers>

namespace {

void fillFrame(float* samples, uint32_t frame, uint32_t channelCount, float value)
{
    for (uint32_t channel = 0; channel < channelCount; ++channel)
        samples[size_t{frame} * channelCount + channel] = value;
}

} // namespace

SimulatedSource simulatedTone(double frequency, float amplitude)
{
    return [=](uint64_t firstFrame, uint32_t frameCount, uint32_t channelCount, double sampleRate,
               float* samples) {
        const double cyclesPerFrame = frequency / sampleRate;
        for (uint32_t frame = 0; frame < frameCount; ++frame) {
            // Whole cycles are removed from the phase first, because the sine of a large argument is
            // inaccurate.
            const double cycles = static_cast<double>(firstFrame + frame) * cyclesPerFrame;
            const double phase = cycles - std::floor(cycles);
            const auto value = static_cast<float>(std::sin(2.0 * std::numbers::pi * phase));
            fillFrame(samples, frame, channelCount, amplitude * value);
        }
    };
}

SimulatedSource simulatedRamp()
{
    return [](uint64_t firstFrame, uint32_t frameCount, uint32_t channelCount, double /*sampleRate*/,
              float* samples) {
        constexpr uint64_t steps = 1U << 24; // the largest range of integers that a float represents exactly
        for (uint32_t frame = 0; frame < frameCount; ++frame) {
            const auto step = static_cast<float>((firstFrame + frame) % steps);
            fillFrame(samples, frame, channelCount, step / static_cast<float>(steps));
        }
    };
}
