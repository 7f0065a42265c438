#include "Chart.h"
#include "Commands.h"
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

/// One panel over all points. Returns where it ends.
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
    return formatText(
               "Settled after %.1f s; delay %.1f frames, wandering by %.3f at most; ratio within %.3f ppm "
               "rms; ",
               figures.settledSeconds, figures.delayFrames, figures.wanderFrames, figures.ratioErrorRMS) +
           formatCount(figures.lostFrames, "frame", "frames") + " lost, " +
           formatCount(figures.resynchronisations, "resynchronisation", "resynchronisations");
}

void writeChart(const std::string& file, const DriftScenario& scenario, const DriftRun& run)
{
    constexpr size_t maxPoints = 2000; // of a curve
    std::vector<DriftPoint> points;
    const size_t step = run.points().size() / maxPoints + 1;
    for (size_t i = 0; i < run.points().size(); i += step)
        points.push_back(run.points()[i]);
    const double meanDelay = run.figures().delayFrames;
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
                             summary(run.figures())) +
                 16.0;
    for (const auto& panel : panels)
        top = draw(chart, top, panel.title, panel.minSpan, panel.curves, points, scenario.seconds) +
              ChartPanel::below;
    chart.write(file, top);
}

void plotRun(const Options& options)
{
    const DriftRun run(options.scenario);
    if (run.points().empty())
        throw ToolFailure("--seconds is too short");
    writeChart(options.file, options.scenario, run);
    std::cout << summary(run.figures()) << "\n";
}

} // namespace

void registerPlotDriftCommand(CLI::App& plot)
{
    CLI::App* command = plot.add_subcommand("drift", "How two devices whose clocks differ are kept together");
    const auto options = std::make_shared<Options>();
    DriftScenario& scenario = options->scenario;
    const auto offset = CLI::Range(-100000.0, 100000.0);
    const auto frames = CLI::Range(8, 8192);
    const auto rates = CLI::Range(8000.0, 768000.0);
    command
        ->add_option("--ppm", scenario.source.partsPerMillion,
                     "How much faster than nominal the source's clock runs")
        ->check(offset);
    command
        ->add_option("--reader-ppm", scenario.reader.partsPerMillion,
                     "The same of the clock it is brought to")
        ->check(offset);
    command
        ->add_option("--wander", scenario.source.wanderPartsPerMillion,
                     "How far the source's clock wanders, in ppm")
        ->check(CLI::Range(0.0, 1000.0));
    command->add_option("--wander-period", scenario.source.wanderSeconds, "In how many seconds it comes back")
        ->check(CLI::Range(10.0, 1e6));
    command->add_option("--frames", scenario.source.frameCount, "Frames of the source's cycle")
        ->check(frames);
    command->add_option("--reader-frames", scenario.reader.frameCount, "Frames of the other's cycle")
        ->check(frames);
    command->add_option("--rate", scenario.source.rate, "The source's nominal rate, in Hz")->check(rates);
    command->add_option("--reader-rate", scenario.reader.rate, "The other's nominal rate, in Hz")
        ->check(rates);
    command
        ->add_option("--lateness", scenario.lateness, "How late threads wake: 1 as on a real server, 0 never")
        ->check(CLI::Range(0.0, 100.0));
    command->add_option("--seconds", scenario.seconds, "How long to simulate")
        ->check(CLI::Range(1.0, 86400.0));
    command->add_option("file", options->file, "The SVG file to write; one that is there is replaced")
        ->required();
    command->callback([options] { plotRun(*options); });
}
