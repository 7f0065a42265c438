#include "SamplerMeasurement.h"

#include "SineFit.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <dxr/ausampler.h>
#include <limits>
#include <memory>
#include <numbers>

namespace {

constexpr double amplitude = 0.5;
constexpr uint32_t blockFrames = 512; // of input, as a device would give
constexpr size_t settlingFrames = 4096, measuredFrames = 16384;
constexpr int points = 160;
constexpr double lowestHertz = 20;
constexpr double silentDecibels = -200;

double decibels(double ratio)
{
    return std::max(20 * std::log10(ratio), silentDecibels);
}

/// The output, without its start.
std::vector<double> sampledTone(double hertz, double rateIn, double rateOut)
{
    const std::unique_ptr<ausampler, decltype(&ausampler_destroy)> sampler(ausampler_create(1),
                                                                           ausampler_destroy);
    std::vector<float> input(blockFrames), output;
    std::vector<double> all;
    const double step = 2 * std::numbers::pi * hertz / rateIn;
    for (uint64_t fed = 0; all.size() < settlingFrames + measuredFrames;) {
        for (float& sample : input)
            sample = static_cast<float>(amplitude * std::sin(step * static_cast<double>(fed++)));
        output.resize(ausampler_write_frames_out(sampler.get(), blockFrames, rateIn, rateOut));
        ausampler_write_interleaved(sampler.get(), input.data(), output.data(), blockFrames, rateIn, rateOut);
        all.insert(all.end(), output.begin(), output.end());
    }
    return {all.begin() + settlingFrames, all.begin() + settlingFrames + measuredFrames};
}

/// The amplitude and phase of one frequency, with a window that suppresses its neighbours.
std::complex<double> component(const std::vector<double>& samples, double hertz, double rate)
{
    std::complex<double> sum = 0;
    double weight = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        const double place =
            2 * std::numbers::pi * (static_cast<double>(i) + 0.5) / static_cast<double>(samples.size());
        const double window = 0.42 - 0.5 * std::cos(place) + 0.08 * std::cos(2 * place);
        sum += window * samples[i] *
               std::polar(1.0, -2 * std::numbers::pi * hertz / rate * static_cast<double>(i));
        weight += window;
    }
    return 2.0 * sum / weight;
}

/// The frequency as sampled at `rate`.
double folded(double hertz, double rate)
{
    const double rest = std::fmod(std::abs(hertz), rate);
    return std::min(rest, rate - rest);
}

/// The loudest image: interpolation repeats the tone around every multiple of the input rate, and frequencies
/// above half the output rate fold back.
double loudestAlias(const std::vector<double>& rest, double hertz, double rateIn, double rateOut)
{
    double loudest = 0;
    for (int multiple = 0; multiple <= 4; ++multiple)
        for (const double image : {multiple * rateIn - hertz, multiple * rateIn + hertz}) {
            const double at = folded(image, rateOut);
            const bool isTone = std::abs(at - hertz) < 8 * rateOut / static_cast<double>(measuredFrames);
            if (!isTone && at > 0)
                loudest = std::max(loudest, std::abs(component(rest, at, rateOut)));
        }
    return loudest;
}

ToneMeasurement measured(double hertz, double rateIn, double rateOut)
{
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    std::vector<double> samples = sampledTone(hertz, rateIn, rateOut);
    ToneMeasurement result{hertz, none, 0, none};
    if (hertz < rateOut / 2) {
        SineFit tone = SineFit::of(samples, hertz, rateOut);
        result.response = decibels(tone.amplitude / amplitude);
        result.signalToNoise = tone.signalToNoise;
        samples = std::move(tone.rest);
    }
    result.alias = decibels(loudestAlias(samples, hertz, rateIn, rateOut) / amplitude);
    return result;
}

} // namespace

std::vector<ToneMeasurement> measureSampler(double rateIn, double rateOut)
{
    // Below half the rate, where a tone has no phase, and is its own image.
    const double highestHertz = rateIn / 2 * 0.995;
    std::vector<ToneMeasurement> all;
    for (int i = 0; i < points; ++i)
        all.push_back(measured(lowestHertz * std::pow(highestHertz / lowestHertz, i / (points - 1.0)), rateIn,
                               rateOut));
    return all;
}
