#include "Commands.h"

#include "Chart.h"
#include "DriftRun.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <functional>
#include <iostream>

namespace {

struct Options {
    DriftScenario scenario;
    std::string file;
};

constexpr const char* foundColour = "#1f6fb4";
constexpr const char* trueColour = "#d98b2b";

struct Curve {
    const char* name;
    const char* colour;
    std::function<double(const DriftPoint&)> value;
};

/// Draws a panel. Returns the y of its bottom.
double draw(Chart& chart, double top, const std::string& title, double minSpan,
            const std::vector<Curve>& curves, const std::vector<DriftPoint>& points, double seconds)
{
    std::vector<double> values;
    std::vector<ChartPanel::Name> names;
    for (const Curve& curve : curves) {
        names.push_back({curve.name, curve.colour});
        for (const DriftPoint& point : points)
            values.push_back(curve.value(point));
    }
    ChartPanel panel(chart, top, 150.0, title, {0.0, seconds, chartLabel(" s")},
                     ChartAxis::around(std::move(values), minSpan), names);
    for (const Curve& curve : curves) {
        std::vector<Chart::Point> line;
        for (const DriftPoint& point : points)
            line.push_back({point.seconds, curve.value(point)});
        panel.curve(line, curve.colour);
    }
    return panel.bottom();
}

std::string describe(const DriftingClock& clock)
{
    std::string all =
        formatText("%+g ppm, %u frames, ", clock.partsPerMillion, clock.frameCount) + formatRate(clock.rate);
    if (clock.wanderPartsPerMillion > 0.0)
        all += formatText(", wandering by %g ppm in %g s", clock.wanderPartsPerMillion, clock.wanderSeconds);
    return all;
}

std::string summary(const DriftFigures& figures)
{
    return formatText("Settled after %.1f s; delay %.1f frames, varying by up to %.3f; ratio within %.3f ppm "
                      "rms; ",
                      figures.settledSeconds, figures.delayFrames, figures.wanderFrames,
                      figures.ratioErrorRMS) +
           formatCount(figures.lostFrames, "frame") + " lost, " +
           formatCount(figures.resynchronisations, "resynchronisation");
}

void writeChart(const std::string& file, const DriftScenario& scenario, const DriftRun& run)
{
    constexpr size_t maxPoints = 2000; // for each curve
    std::vector<DriftPoint> points;
    const size_t step = run.points.size() / maxPoints + 1;
    for (size_t i = 0; i < run.points.size(); i += step)
        points.push_back(run.points[i]);
    const double meanDelay = run.figures.delayFrames;
    const struct {
        const char* title;
        double minSpan;
        std::vector<Curve> curves;
    } panels[] = {
        {"ratio over nominal, ppm",
         1.0,
         {{"true", trueColour, [](const DriftPoint& point) { return point.truePartsPerMillion; }},
          {"found", foundColour, [](const DriftPoint& point) { return point.partsPerMillion; }}}},
        {"error of the ratio, ppm",
         1.0,
         {{"", foundColour,
           [](const DriftPoint& point) { return point.partsPerMillion - point.truePartsPerMillion; }}}},
        {"delay less its mean, frames",
         2.0,
         {{"", foundColour, [=](const DriftPoint& point) { return point.delayFrames - meanDelay; }}}},
        {"level of the ring, frames",
         16.0,
         {{"", foundColour, [](const DriftPoint& point) { return point.levelFrames; }}}},
    };
    Chart chart;
    double top = chart.title("From " + describe(scenario.source) + " to " + describe(scenario.reader),
                             summary(run.figures)) +
                 16.0;
    for (const auto& panel : panels)
        top = draw(chart, top, panel.title, panel.minSpan, panel.curves, points, scenario.seconds) +
              ChartPanel::below;
    Chart::writeFile(file, chart.svg(top));
}

void plotRun(Options& options)
{
    const DriftRun run = runDrift(options.scenario);
    if (run.points.empty())
        throw ToolFailure("--seconds is too short");
    writeChart(options.file, options.scenario, run);
    std::cout << summary(run.figures) << "\n";
}

} // namespace

void registerPlotDriftCommand(CLI::App& plot)
{
    const auto [command, options] =
        addCommand(plot, "drift", "How devices with different clocks are synchronised", plotRun);
    DriftScenario& scenario = options.scenario;
    const auto add = [&command = command](const char* name, auto& value, auto min, auto max,
                                          const char* about) {
        command.add_option(name, value, about)->check(CLI::Range(min, max));
    };
    add("--ppm", scenario.source.partsPerMillion, -1e5, 1e5,
        "How much faster than nominal the source's clock runs");
    add("--reader-ppm", scenario.reader.partsPerMillion, -1e5, 1e5,
        "How much faster than nominal the reader's clock runs");
    add("--wander", scenario.source.wanderPartsPerMillion, 0.0, 1000.0,
        "How far the source's clock wanders, in ppm");
    add("--wander-period", scenario.source.wanderSeconds, 10.0, 1e6,
        "The period of this variation, in seconds");
    add("--frames", scenario.source.frameCount, 8, 8192, "Frames of the source's cycle");
    add("--reader-frames", scenario.reader.frameCount, 8, 8192, "Frames of the reader's cycle");
    add("--rate", scenario.source.rate, 8000.0, 768000.0, "The source's nominal rate, in Hz");
    add("--reader-rate", scenario.reader.rate, 8000.0, 768000.0, "The reader's nominal rate, in Hz");
    add("--lateness", scenario.lateness, 0.0, 100.0,
        "How late threads wake up: 1 as on a real server, 0 never");
    add("--seconds", scenario.seconds, 1.0, 86400.0, "The simulated duration");
    command.add_option("file", options.file, "The SVG file to write; an existing one is replaced")
        ->required();
}
