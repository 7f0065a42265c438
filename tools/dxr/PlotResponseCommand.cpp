#include "PlotResponseCommand.h"

#include "DisplayText.h"
#include "PlotDriftCommand.h"
#include "SamplerMeasurement.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <cmath>
#include <fstream>
#include <iostream>
#include <memory>

namespace {

struct Options {
    double from = 0, to = 0; // Hz
    std::string file;
};

constexpr double width = 900, height = 560, left = 70, right = 880, top = 70, bottom = 490;
constexpr double lowestDecibels = -160, highestDecibels = 10;

/// Places in the drawing.
class Axes {
public:
    Axes(double lowestHertz, double highestHertz) : _lowest(lowestHertz), _highest(highestHertz) {}
    double x(double hertz) const
    {
        return left + (right - left) * std::log(hertz / _lowest) / std::log(_highest / _lowest);
    }
    static double y(double decibels)
    {
        const double inside = std::min(std::max(decibels, lowestDecibels), highestDecibels);
        return bottom - (bottom - top) * (inside - lowestDecibels) / (highestDecibels - lowestDecibels);
    }
    bool contains(double hertz) const { return hertz >= _lowest && hertz <= _highest; }

private:
    double _lowest, _highest;
};

std::string label(double x, double y, const char* anchor, const std::string& text)
{
    return formatText("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\">%s</text>\n", x, y, anchor,
                      text.c_str());
}

std::string grid(const Axes& axes)
{
    std::string svg = "<g stroke=\"#ddd\">\n";
    std::string labels;
    constexpr double step = 20.0;
    constexpr auto lines = static_cast<int>((highestDecibels - lowestDecibels) / step);
    for (int line = 0; line <= lines; ++line) {
        const double decibels = lowestDecibels + line * step;
        const double y = Axes::y(decibels);
        svg += formatText("<line x1=\"%g\" y1=\"%.1f\" x2=\"%g\" y2=\"%.1f\"/>\n", left, y, right, y);
        labels += label(left - 8, y + 4, "end", formatText("%g dB", decibels));
    }
    for (const double hertz : {20.0, 50.0, 100.0, 200.0, 500.0, 1e3, 2e3, 5e3, 10e3, 20e3, 50e3, 100e3}) {
        if (!axes.contains(hertz))
            continue;
        const double x = axes.x(hertz);
        svg += formatText("<line x1=\"%.1f\" y1=\"%g\" x2=\"%.1f\" y2=\"%g\"/>\n", x, top, x, bottom);
        labels += label(x, bottom + 18, "middle",
                        hertz < 1000 ? formatText("%g Hz", hertz) : formatText("%g kHz", hertz / 1000));
    }
    return svg + "</g>\n" + labels;
}

/// One curve; it breaks where there is nothing to draw.
template <class Value>
std::string curve(const Axes& axes, const std::vector<ToneMeasurement>& tones, const char* colour,
                  const Value& value)
{
    std::string path;
    bool isDrawing = false;
    for (const ToneMeasurement& tone : tones) {
        const double decibels = value(tone);
        if (!std::isnan(decibels))
            path += formatText("%c%.1f %.1f ", isDrawing ? 'L' : 'M', axes.x(tone.hertz), Axes::y(decibels));
        isDrawing = !std::isnan(decibels);
    }
    return formatText("<path fill=\"none\" stroke=\"%s\" stroke-width=\"2\" d=\"", colour) + path + "\"/>\n";
}

std::string legend(double x, const char* colour, const char* text)
{
    return formatText("<line x1=\"%g\" y1=\"54\" x2=\"%g\" y2=\"54\" stroke=\"%s\" stroke-width=\"3\"/>\n", x,
                      x + 24, colour) +
           label(x + 30, 58, "start", text);
}

std::string drawing(const Options& options, const std::vector<ToneMeasurement>& tones)
{
    const Axes axes(tones.front().hertz, tones.back().hertz);
    std::string svg =
        formatText("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %g %g\" width=\"%g\" "
                   "height=\"%g\" font-family=\"sans-serif\" font-size=\"12\">\n"
                   "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n",
                   width, height, width, height);
    svg += "<g font-size=\"16\">" +
           label(left, 30, "start",
                 "Sampler, " + formatRate(options.from) + " to " + formatRate(options.to) +
                     ", tones in blocks of 512 frames") +
           "</g>\n";
    svg += grid(axes);
    svg += curve(axes, tones, "#1f6fb4", [](const ToneMeasurement& tone) { return tone.response; });
    svg += curve(axes, tones, "#c8321e", [](const ToneMeasurement& tone) { return tone.alias; });
    svg += curve(axes, tones, "#2f8f46", [](const ToneMeasurement& tone) { return -tone.signalToNoise; });
    svg += legend(left, "#1f6fb4", "response") + legend(left + 120, "#c8321e", "loudest alias") +
           legend(left + 260, "#2f8f46", "all but the tone, below the tone (signal-to-noise)");
    svg += label((left + right) / 2, height - 24, "middle", "frequency of the tone at the input");
    return svg + "</svg>\n";
}

void printSummary(const std::vector<ToneMeasurement>& tones)
{
    std::cout << "    tone    response       alias  signal/noise\n";
    for (const double wanted : {100.0, 1000.0, 5000.0, 10000.0, 15000.0}) {
        const ToneMeasurement* nearest = &tones.front();
        for (const ToneMeasurement& tone : tones)
            if (std::abs(tone.hertz - wanted) < std::abs(nearest->hertz - wanted))
                nearest = &tone;
        if (wanted <= tones.back().hertz)
            std::cout << formatText("%5.0f Hz  %7.2f dB  %7.1f dB  %9.1f dB\n", nearest->hertz,
                                    nearest->response, nearest->alias, nearest->signalToNoise);
    }
}

void run(const Options& options)
{
    const std::vector<ToneMeasurement> tones = measureSampler(options.from, options.to);
    std::ofstream file(options.file, std::ios::binary);
    file << drawing(options, tones);
    if (!file.flush())
        throw ToolFailure(singleLine(options.file) + ": cannot be written");
    printSummary(tones);
}

} // namespace

void registerPlotCommand(CLI::App& app)
{
    CLI::App* plot = app.add_subcommand("plot", "Measure and draw");
    plot->require_subcommand(1);
    CLI::App* command = plot->add_subcommand(
        "response", "The sampler's frequency response, aliases and noise between two rates");
    const auto options = std::make_shared<Options>();
    const auto rates = CLI::Range(1000.0, 1'000'000.0);
    command->add_option("--from", options->from, "The rate to convert from, in Hz")->required()->check(rates);
    command->add_option("--to", options->to, "The rate to convert to, in Hz")->required()->check(rates);
    command->add_option("file", options->file, "The SVG file to write; one that is there is replaced")
        ->required();
    command->callback([options] { run(*options); });
    registerPlotDriftCommand(*plot);
}
