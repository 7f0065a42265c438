#include "PlotDriftCommand.h"

#include "DisplayText.h"
#include "DriftRun.h"
#include "SvgShapes.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>

namespace {

struct Options {
    DriftScenario scenario;
    std::string file;
};

constexpr double width = 960, left = 90, right = 930, firstTop = 84, panelHeight = 150, panelGap = 40;
constexpr size_t maxPoints = 2000; // of a curve
constexpr const char* drawn = "#1f6fb4";
constexpr const char* truth = "#d98b2b";

using Value = std::function<double(const DriftPoint&)>;

struct Curve {
    Value value;
    const char* colour;
};

struct Panel {
    std::string title;
    double least; ///< the vertical span that is shown at least
    std::vector<Curve> curves;
};

std::string text(double x, double y, const char* anchor, const std::string& what, double size = 12)
{
    return formatText("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\" font-size=\"%g\">", x, y, anchor,
                      size) +
           what + "</text>\n";
}

/// One panel over `points`, which are those of the whole run from `from` seconds on.
std::string panelDrawing(const Panel& panel, const std::vector<DriftPoint>& points, double top,
                         double seconds)
{
    // By the middle of what is drawn: the first moments would press the rest flat.
    std::vector<double> values;
    for (const Curve& curve : panel.curves)
        for (const DriftPoint& point : points)
            values.push_back(curve.value(point));
    std::ranges::sort(values);
    const auto at = [&](double part) {
        return values[static_cast<size_t>(part * static_cast<double>(values.size() - 1))];
    };
    const double middle = (at(0.04) + at(0.96)) / 2.0;
    const double span = std::max(panel.least, (at(0.96) - at(0.04)) * 1.4);
    const double bottom = top + panelHeight;
    const auto x = [&](double when) { return left + (right - left) * when / seconds; };
    const auto y = [&](double value) {
        return std::clamp(bottom - panelHeight * ((value - middle) / span + 0.5), top, bottom);
    };
    std::string svg = text(left, top - 8, "start", panel.title);
    const double step = svgNiceStep(span);
    const int digits = std::max(0, static_cast<int>(-std::floor(std::log10(step))));
    for (auto line = static_cast<int64_t>(std::ceil((middle - span / 2.0) / step));; ++line) {
        const double value = static_cast<double>(line) * step;
        if (value > middle + span / 2.0)
            break;
        svg += formatText("<line x1=\"%g\" y1=\"%.1f\" x2=\"%g\" y2=\"%.1f\" stroke=\"#ddd\"/>\n", left,
                          y(value), right, y(value));
        svg += text(left - 8, y(value) + 4, "end",
                    formatText("%.*f", digits, std::abs(value) < step / 2 ? 0.0 : value));
    }
    const double timeStep = svgNiceStep(seconds);
    const auto lastTime = static_cast<int>(seconds * 1.0001 / timeStep);
    for (int line = 0; line <= lastTime; ++line) {
        const double when = line * timeStep;
        svg += formatText("<line x1=\"%.1f\" y1=\"%g\" x2=\"%.1f\" y2=\"%g\" stroke=\"#ddd\"/>\n", x(when),
                          top, x(when), bottom);
        svg += text(x(when), bottom + 16, "middle", formatText("%g s", when));
    }
    for (const Curve& curve : panel.curves) {
        svg += formatText("<path fill=\"none\" stroke=\"%s\" stroke-width=\"1.5\" d=\"", curve.colour);
        for (size_t i = 0; i < points.size(); ++i)
            svg += formatText("%c%.1f %.1f ", i == 0 ? 'M' : 'L', x(points[i].seconds),
                              y(curve.value(points[i])));
        svg += "\"/>\n";
    }
    return svg;
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

std::string drawing(const DriftScenario& scenario, const DriftRun& run)
{
    std::vector<DriftPoint> points;
    const size_t step = run.points().size() / maxPoints + 1;
    for (size_t i = 0; i < run.points().size(); i += step)
        points.push_back(run.points()[i]);
    const double delay = run.figures().delayFrames;
    const Panel panels[] = {
        {"ratio over nominal, ppm (true ratio behind it)",
         1.0,
         {{[](const DriftPoint& point) { return point.truePartsPerMillion; }, truth},
          {[](const DriftPoint& point) { return point.partsPerMillion; }, drawn}}},
        {"error of the ratio, ppm",
         1.0,
         {{[](const DriftPoint& point) { return point.partsPerMillion - point.truePartsPerMillion; },
           drawn}}},
        {"delay less its mean, frames",
         2.0,
         {{[&](const DriftPoint& point) { return point.delayFrames - delay; }, drawn}}},
        {"level of the ring, frames",
         16.0,
         {{[](const DriftPoint& point) { return point.levelFrames; }, drawn}}},
    };
    const double height = firstTop + 4 * (panelHeight + panelGap);
    std::string svg = formatText(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %g %g\" width=\"%g\" height=\"%g\" "
        "font-family=\"sans-serif\">\n<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n",
        width, height, width, height);
    svg +=
        text(left, 26, "start", "From " + describe(scenario.source) + " to " + describe(scenario.reader), 14);
    svg += text(left, 48, "start", summary(run.figures()));
    double top = firstTop;
    for (const Panel& panel : panels) {
        svg += panelDrawing(panel, points, top, scenario.seconds);
        top += panelHeight + panelGap;
    }
    return svg + "</svg>\n";
}

void plotRun(const Options& options)
{
    const DriftRun run(options.scenario);
    if (run.points().empty())
        throw ToolFailure("--seconds is too short");
    std::ofstream file(options.file, std::ios::binary);
    file << drawing(options.scenario, run);
    if (!file.flush())
        throw ToolFailure(singleLine(options.file) + ": cannot be written");
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
