#include "Commands.h"

#include "Chart.h"
#include "SamplerMeasurement.h"
#include "TextFormat.h"

#include <cmath>
#include <iostream>

namespace {

struct Options {
    double from = 0, to = 0; // Hz
    std::string file;
};

void writeChart(const Options& options, const std::vector<ToneMeasurement>& tones)
{
    struct Curve {
        ChartPanel::Name name;
        double (*value)(const ToneMeasurement&);
    };
    const Curve curves[] = {
        {{"all but the tone, below the tone (signal-to-noise)", "#2f8f46"},
         [](const ToneMeasurement& tone) { return -tone.signalToNoise; }},
        {{"loudest alias", "#c8321e"}, [](const ToneMeasurement& tone) { return tone.alias; }},
        {{"response", "#1f6fb4"}, [](const ToneMeasurement& tone) { return tone.response; }}};
    const auto frequency = [](double hertz) {
        return hertz < 1000 ? formatText("%g Hz", hertz) : formatText("%g kHz", hertz / 1000);
    };
    Chart chart;
    const double top = chart.title("Sampler, " + formatRate(options.from) + " to " + formatRate(options.to),
                                   "Tones in blocks of 512 frames");
    ChartPanel panel(chart, top + 16.0, 420.0, "",
                     {tones.front().hertz,
                      tones.back().hertz,
                      frequency,
                      true,
                      {20, 50, 100, 200, 500, 1e3, 2e3, 5e3, 10e3, 20e3, 50e3, 100e3}},
                     {-160, 10, chartLabel(" dB")}, {curves[0].name, curves[1].name, curves[2].name});
    for (const Curve& curve : curves) {
        std::vector<Chart::Point> points;
        for (const ToneMeasurement& tone : tones)
            points.push_back({tone.hertz, curve.value(tone)});
        panel.curve(points, curve.name.colour);
    }
    chart.text({(Chart::left + Chart::right) / 2, panel.bottom() + 40.0},
               "frequency of the tone at the input", {Chart::ink, 12.0, "middle"});
    Chart::writeFile(options.file, chart.svg(panel.bottom() + 60.0));
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
    const auto rates = CLI::Range(1000.0, 1'000'000.0);
    command.add_option("--from", options.from, "The rate to convert from, in Hz")->required()->check(rates);
    command.add_option("--to", options.to, "The rate to convert to, in Hz")->required()->check(rates);
    command.add_option("file", options.file, "The SVG file to write; an existing one is replaced")
        ->required();
    registerPlotDriftCommand(*plot);
}
