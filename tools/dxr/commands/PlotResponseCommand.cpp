#include "Commands.h"

#include "Chart.h"
#include "SineFit.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <dxr/ausampler.h>
#include <numbers>

namespace {

struct Options {
    double from = 0, to = 0; // Hz
    std::string file;
};

// ---- The measurement

/// The sampler's output for an input tone.
struct ToneMeasurement {
    double hertz;         ///< frequency of the tone
    double response;      ///< dB relative to the input tone; NaN above half the output rate
    double alias;         ///< dB, the loudest new tone relative to the input tone
    double signalToNoise; ///< dB, the tone relative to the remainder; NaN above half the output rate
};

constexpr double amplitude = 0.5;
constexpr uint32_t blockFrames = 512; // input frames of a block, as from a device
constexpr size_t settlingFrames = 4096, measuredFrames = 16384;
constexpr size_t toneCount = 160;
constexpr double lowestHertz = 20, silentDecibels = -200;

double decibels(double ratio)
{
    return std::max(20 * std::log10(ratio), silentDecibels);
}

/// The sampler's output for a tone, without the first settlingFrames.
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

/// The amplitude and phase of one frequency, measured with a window that suppresses neighbouring frequencies.
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

/// The frequency at which a tone appears when sampled at `rate`.
double folded(double hertz, double rate)
{
    const double rest = std::fmod(std::abs(hertz), rate);
    return std::min(rest, rate - rest);
}

/// The amplitude of the loudest image: interpolation repeats the tone around every multiple of the input
/// rate, and frequencies above half the output rate are folded back.
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

/// Measures tones from 20 Hz to half the input rate. Rates are in Hz.
std::vector<ToneMeasurement> measureSampler(double rateIn, double rateOut)
{
    // Slightly below half the rate: there a tone has no phase and coincides with its image.
    const double highestHertz = rateIn / 2 * 0.995;
    std::vector<ToneMeasurement> all(toneCount);
    for (size_t i = 0; i < toneCount; ++i)
        all[i] = measured(
            lowestHertz * std::pow(highestHertz / lowestHertz, static_cast<double>(i) / (toneCount - 1.0)),
            rateIn, rateOut);
    return all;
}

// ---- The picture

void writeChart(const Options& options, const std::vector<ToneMeasurement>& tones)
{
    const auto curve = [&](const char* name, const char* colour, auto value) {
        return ChartCurve::of(name, colour, tones, &ToneMeasurement::hertz, value);
    };
    const auto noise = [](const ToneMeasurement& tone) { return -tone.signalToNoise; };
    const std::vector<double> marks{20, 50, 100, 200, 500, 1e3, 2e3, 5e3, 10e3, 20e3, 50e3, 100e3};
    Chart chart;
    const double top = chart.title("Sampler, " + formatRate(options.from) + " to " + formatRate(options.to),
                                   "Tones in blocks of 512 frames");
    const ChartPanel panel(chart, top + 16.0, 420.0, "",
                           {tones.front().hertz, tones.back().hertz, formatRate, true, marks},
                           {-160, 10, chartLabel(" dB")},
                           {curve("all but the tone, below the tone (signal-to-noise)", "#2f8f46", noise),
                            curve("loudest alias", "#c8321e", &ToneMeasurement::alias),
                            curve("response", "#1f6fb4", &ToneMeasurement::response)});
    chart.text({(Chart::left + Chart::right) / 2, panel.bottom() + 40.0},
               "frequency of the tone at the input", {Chart::ink, 12.0, "middle"});
    Chart::writeFile(options.file, chart.svg(panel.bottom() + 60.0));
}

void printSummary(const std::vector<ToneMeasurement>& tones)
{
    const auto column = [](double decibels, int decimals) { // "-" for NaN, and never "-0.0"
        const double unit = std::pow(10, -decimals), rounded = std::round(decibels / unit) * unit + 0.0;
        return fitRight(std::isnan(decibels) ? "-" : formatText("%.*f dB", decimals, rounded), 14);
    };
    std::cout << "    tone      response         alias  signal/noise\n";
    for (const double wanted : {100.0, 1000.0, 5000.0, 10000.0, 15000.0}) {
        const auto nearest = std::ranges::min_element(
            tones, {}, [&](const ToneMeasurement& tone) { return std::abs(tone.hertz - wanted); });
        if (wanted <= tones.back().hertz)
            std::cout << formatText("%5.0f Hz", nearest->hertz) << column(nearest->response, 2)
                      << column(nearest->alias, 1) << column(nearest->signalToNoise, 1) << "\n";
    }
}

void run(Options& options)
{
    const std::vector<ToneMeasurement> tones = measureSampler(options.from, options.to);
    writeChart(options, tones);
    printSummary(tones);
}

} // namespace

void registerPlotCommand(CLI::App& app)
{
    CLI::App* plot = app.add_subcommand("plot", "Measure and draw");
    plot->require_subcommand(1);
    const auto [command, options] = addCommand(
        *plot, "response", "The sampler's frequency response, aliases and noise between two rates", run);
    const auto rates = numberFrom(1000.0, 1'000'000.0);
    addRequired(command, "--from", options.from, "The rate to convert from, in Hz")->check(rates);
    addRequired(command, "--to", options.to, "The rate to convert to, in Hz")->check(rates);
    addRequired(command, "file", options.file, "The SVG file to write; an existing one is replaced");
    registerPlotDriftCommand(*plot);
}
