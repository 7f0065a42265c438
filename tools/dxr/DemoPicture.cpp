#include "DemoPicture.h"

#include "DisplayText.h"
#include "SvgDrawing.h"
#include "SvgShapes.h"
#include "TextFormat.h"

#include <algorithm>
#include <cmath>

namespace {

// The picture's measures, in its own units.
constexpr double width = 1000.0;
constexpr double left = 190.0;
constexpr double right = 960.0;
constexpr double firstTop = 112.0;
constexpr double laneHeight = 34.0;
constexpr double barHeight = 14.0;
constexpr double panelHeight = 96.0;
constexpr double panelGap = 30.0;
constexpr size_t textColumns = 120; // of the results

constexpr const char* deviceColours[] = {"#e07a3f", "#3b82c4", "#43a68b"};
constexpr const char* contextColours[] = {"#c8ccd6", "#e9c46a", "#9cc5e3",
                                          "#5b8def"}; // by how many devices run

constexpr SvgDrawing::TextStyle title{svgInk, 13.0, "end", true};

using Point = SvgDrawing::Point;

/// Draws one run, from top to bottom.
class Picture {
public:
    explicit Picture(const DemoHistory& history) : _history(history) {}

    std::string draw(const std::string& results);

private:
    struct Curve {
        const char* colour;
        std::vector<Point> points; // x in seconds, y in the panel's unit
        double thickness = 1.5;
    };
    struct Panel {
        const char* name;
        const char* unit;
        double least, most, step;
        const char* format; // of the numbers
    };

    double _x(double seconds) const
    {
        return left + (right - left) * std::clamp(seconds / std::max(_history.seconds, 0.001), 0.0, 1.0);
    }
    void _title(const std::string& results);
    void _seconds(double bottom);
    void _contexts();
    void _lanes();
    void _notes(DemoStage::Device device);
    double _panel(const Panel& panel);
    void _curve(const Panel& panel, double top, const Curve& curve);
    void _drifts();
    void _times();
    void _sounds();
    std::vector<Point> _of(const std::vector<DemoHistory::Value>& values, DemoStage::Device device) const;

    const DemoHistory& _history;
    SvgDrawing _drawing;
    double _top = firstTop;
};

std::string Picture::draw(const std::string& results)
{
    constexpr double bottomMargin = 36.0;
    _contexts();
    _lanes();
    _drifts();
    _times();
    _sounds();
    const double bottom = _top - panelGap;
    const SvgDrawing panels = std::exchange(_drawing, {}); // what is drawn first lies behind
    _title(results);
    _seconds(bottom);
    _drawing.add(panels);
    return _drawing.svg(width, bottom + bottomMargin);
}

void Picture::_title(const std::string& results)
{
    _drawing.text(
        {24.0, 36.0},
        formatText("dxr demo: devices come and go in %.1f s, and the time goes on", _history.seconds),
        {svgInk, 20.0, "start", true});
    double y = 60.0;
    for (const std::string& line : wrapped(results, textColumns)) {
        _drawing.text({24.0, y}, line, {svgFaint, 12.0});
        y += 17.0;
    }
}

void Picture::_seconds(double bottom)
{
    const int step = _history.seconds > 40.0 ? 10 : _history.seconds > 20.0 ? 5 : 1;
    for (int second = 0; second <= static_cast<int>(_history.seconds + 0.01); second += step) {
        const double x = _x(second);
        _drawing.line({x, firstTop}, {x, bottom}, svgGrid);
        _drawing.text({x, bottom + 18.0}, formatText("%d s", second), {svgFaint, 11.0, "middle"});
    }
}

void Picture::_contexts()
{
    _drawing.text({left - 12.0, _top + 15.0}, "what runs", title);
    for (size_t i = 0; i < _history.contexts.size(); ++i) {
        const DemoHistory::Context& context = _history.contexts[i];
        const double from = _x(context.seconds);
        const double to =
            _x(i + 1 < _history.contexts.size() ? _history.contexts[i + 1].seconds : _history.seconds);
        const size_t count = std::min(context.deviceCount, std::size(contextColours) - 1);
        _drawing.rectangle({from, _top}, std::max(1.0, to - from - 1.0), 22.0, contextColours[count], 1.0,
                           3.0);
        const std::string what = count == 0 ? "timer" : count == 1 ? "one" : formatText("%zu as one", count);
        if (to - from > 7.0 * static_cast<double>(what.size()))
            _drawing.text({(from + to) / 2.0, _top + 15.0}, what, {svgInk, 11.0, "middle"});
    }
    _top += 22.0 + panelGap;
}

void Picture::_lanes()
{
    for (const DemoStage::Device device : DemoStage::devices) {
        const DemoStage::Facts& facts = DemoStage::factsOf(device);
        _drawing.text({left - 12.0, _top + 12.0}, facts.name, {svgInk, 12.0, "end"});
        _drawing.text({left - 12.0, _top + 25.0}, formatRate(facts.sampleRate), {svgFaint, 10.0, "end"});
        for (const DemoHistory::Presence& presence : _history.presences) {
            if (presence.device != device)
                continue;
            const double from = _x(presence.from);
            const double to = _x(presence.to < 0.0 ? _history.seconds : presence.to);
            _drawing.rectangle({from, _top}, std::max(1.0, to - from), barHeight, deviceColours[device], 0.8,
                               4.0);
        }
        _notes(device);
        _top += laneHeight;
    }
    _top += panelGap - 8.0;
}

void Picture::_notes(DemoStage::Device device)
{
    double roomFrom = left; // those that would run into one another share a place
    for (const DemoHistory::Note& note : _history.notes) {
        if (note.device != device)
            continue;
        const double x = _x(note.seconds);
        const std::string what = clipToWidth(singleLine(note.what), 40);
        const double length = 5.6 * static_cast<double>(displayWidth(what));
        const bool isAtEnd = x + length > right;
        _drawing.circle({x, _top + barHeight / 2.0}, 4.0, "#fff", svgInk);
        if (x >= roomFrom || isAtEnd)
            _drawing.text({x, _top + barHeight + 13.0}, what, {svgInk, 10.5, isAtEnd ? "end" : "start"});
        roomFrom = x + length + 8.0;
    }
}

/// An empty panel; answers where its top is.
double Picture::_panel(const Panel& panel)
{
    const double top = _top;
    _drawing.text({left - 60.0, top + 12.0}, panel.name, title);
    _drawing.text({left - 60.0, top + 27.0}, panel.unit, {svgFaint, 10.5, "end"});
    for (long i = 0; i <= std::lround((panel.most - panel.least) / panel.step); ++i) {
        const double value = panel.least + static_cast<double>(i) * panel.step;
        const double y = top + panelHeight * (panel.most - value) / (panel.most - panel.least);
        _drawing.line({left, y}, {right, y}, svgGrid);
        _drawing.text({left - 8.0, y + 4.0}, formatText(panel.format, value), {svgFaint, 10.5, "end"});
    }
    _top += panelHeight + panelGap;
    return top;
}

/// Broken where nothing was measured for a while.
void Picture::_curve(const Panel& panel, double top, const Curve& curve)
{
    constexpr double gapSeconds = 0.35;
    std::vector<Point> unbroken;
    double last = 0.0;
    for (const Point& point : curve.points) {
        if (!unbroken.empty() && point.x - last > gapSeconds) {
            _drawing.curve(unbroken, curve.colour, curve.thickness);
            unbroken.clear();
        }
        last = point.x;
        const double value = std::clamp(point.y, panel.least, panel.most);
        unbroken.push_back(
            {_x(point.x), top + panelHeight * (panel.most - value) / (panel.most - panel.least)});
    }
    _drawing.curve(unbroken, curve.colour, curve.thickness);
}

std::vector<Point> Picture::_of(const std::vector<DemoHistory::Value>& values, DemoStage::Device device) const
{
    std::vector<Point> points;
    for (const DemoHistory::Value& value : values)
        if (value.device == device)
            points.push_back({value.seconds, value.value});
    return points;
}

void Picture::_drifts()
{
    const Panel panel{"drift", "ppm, to the leader", -300.0, 300.0, 100.0, "%+.0f"};
    const double top = _panel(panel);
    for (const DemoStage::Device device : DemoStage::devices) // the truth, while the microphone leads
        if (const double truth = DemoStage::factsOf(device).partsPerMillion -
                                 DemoStage::factsOf(DemoStage::Microphone).partsPerMillion;
            truth != 0.0) {
            const double y = top + panelHeight * (panel.most - truth) / (panel.most - panel.least);
            _drawing.dashedLine({left, y}, {right, y}, deviceColours[device]);
        }
    for (const DemoStage::Device device : DemoStage::devices)
        _curve(panel, top, {deviceColours[device], _of(_history.drifts, device), 2.0});
}

void Picture::_times()
{
    if (_history.cycles.empty())
        return;
    const DemoHistory::Cycle& first = _history.cycles.front();
    Curve time{svgInk, {}}, late{"#c75d6b", {}};
    double most = 50.0; // ms that is shown at least
    for (const DemoHistory::Cycle& cycle : _history.cycles) {
        const double sampleSeconds = cycle.sampleSeconds - first.sampleSeconds;
        time.points.push_back({cycle.seconds, sampleSeconds});
        late.points.push_back({cycle.seconds, 1e3 * (cycle.seconds - first.seconds - sampleSeconds)});
        most = std::max(most, late.points.back().y);
    }
    const double step = std::ceil(_history.seconds / 4.0);
    const Panel times{"sample time", "s", 0.0, 4.0 * step, step, "%.0f"};
    _curve(times, _panel(times), time);
    const double lateStep = 25.0 * std::ceil(most / 100.0);
    const Panel lates{"behind the", "wall clock, ms", 0.0, 4.0 * lateStep, lateStep, "%.0f"};
    _curve(lates, _panel(lates), late);
}

void Picture::_sounds()
{
    const Panel levels{"level", "of the tone, dB", -48.0, 0.0, 12.0, "%.0f"};
    const Panel qualities{"purity", "tone to all else, dB", 0.0, 120.0, 30.0, "%.0f"};
    const double levelsTop = _panel(levels), qualitiesTop = _panel(qualities);
    for (const DemoStage::Device device : DemoStage::outputs) {
        Curve level{deviceColours[device], {}}, quality{deviceColours[device], {}};
        for (const DemoHistory::Tone& tone : _history.tones) {
            if (tone.device != device)
                continue;
            level.points.push_back({tone.seconds, tone.level > 0.0 ? 20.0 * std::log10(tone.level) : -200.0});
            quality.points.push_back({tone.seconds, tone.quality[0]});
        }
        _curve(levels, levelsTop, level);
        _curve(qualities, qualitiesTop, quality);
    }
}

} // namespace

std::string demoPicture(const DemoHistory& history, const std::string& results)
{
    return Picture(history).draw(results);
}
