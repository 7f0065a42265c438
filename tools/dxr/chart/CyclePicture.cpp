#include "CyclePicture.h"

#include "Text.h"

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

namespace {

constexpr size_t maxStretches = 800;
constexpr double laneHeight = 26.0, barHeight = 14.0, panelHeight = 170.0;
constexpr double shortestSeconds = 3.16e-7, longestSeconds = 0.1; // range of the time axes

constexpr const char* latenessColour = "#e07a3f";
constexpr const char* runColour = "#3b82c4";
constexpr const char* endColour = "#6c7a96";
constexpr const char* waitColour = "#43a68b";
constexpr const char* deadlineColour = "#c75d6b";

constexpr struct {
    Context context;
    const char *name, *colour;
} contextStyles[] = {{Context::Aggregate, "several devices", "#3b82c4"},
                     {Context::Device, "one device", "#43a68b"},
                     {Context::Timer, "timer, no device", "#d9903d"}};

std::string timeText(double seconds)
{
    return seconds < 0.9995e-3 ? formatText("%.3g µs", seconds * 1e6)
           : seconds < 0.9995  ? formatText("%.3g ms", seconds * 1e3)
                               : formatText("%.3g s", seconds);
}

} // namespace

// ---- TickHistogram

double TickHistogram::quantileSeconds(double share) const
{
    const auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(_count)));
    uint64_t seen = 0;
    for (size_t bin = 0; bin < _bins.size(); ++bin) {
        seen += _bins[bin];
        if (seen >= wanted && seen > 0)
            return std::min(_beginOf(bin + 1), _longest);
    }
    return _longest;
}

std::vector<Chart::Point> TickHistogram::outline(double fromSeconds, double toSeconds) const
{
    std::vector<Chart::Point> points;
    for (size_t bin = 0; bin < _bins.size(); ++bin)
        for (const double edge : {_beginOf(bin), _beginOf(bin + 1)})
            if (edge > fromSeconds && edge < toSeconds)
                points.push_back({edge, static_cast<double>(_bins[bin])});
    return points;
}

// ---- Records

void CyclePicture::Stretch::take(const Stretch& next)
{
    latest = std::max(latest, next.latest);
    longest = std::max(longest, next.longest);
    if (firstSampleTime < 0.0) {
        firstSampleTime = next.firstSampleTime;
        firstSeconds = next.firstSeconds;
    }
    contexts |= next.contexts;
    changes += next.changes;
    lateCycles += next.lateCycles;
    if (next.devices)
        devices = devices.value_or(UINT64_MAX) & *next.devices;
}

CyclePicture::Stretch& CyclePicture::_stretchAt(double seconds)
{
    auto place = static_cast<size_t>(std::max(0.0, seconds) / _stretchSeconds);
    while (place >= maxStretches) {
        for (size_t i = 0; 2 * i < _stretches.size(); ++i) {
            Stretch both = _stretches[2 * i];
            if (2 * i + 1 < _stretches.size())
                both.take(_stretches[2 * i + 1]);
            _stretches[i] = both;
        }
        _stretches.resize((_stretches.size() + 1) / 2);
        _stretchSeconds *= 2.0;
        place = static_cast<size_t>(seconds / _stretchSeconds);
    }
    if (place >= _stretches.size())
        _stretches.resize(place + 1);
    return _stretches[place];
}

void CyclePicture::note(const DXRCycleRecord& record)
{
    if (_beginTicks == 0)
        _beginTicks = record.beginTicks;
    const double begin = secondsAt(record.beginTicks), end = secondsAt(record.endTicks);
    _lastSeconds = std::max(_lastSeconds, end);
    Stretch& stretch = _stretchAt(begin);
    if (record.event != Event::Cycle) {
        stretch.changes += record.event == Event::ContextStarted;
        return;
    }
    stretch.contexts |= 1U << static_cast<uint32_t>(record.context);
    const double run = end - secondsAt(record.blocksBeginTicks);
    stretch.longest = std::max(stretch.longest, run);
    if (stretch.firstSampleTime < 0.0) {
        stretch.firstSampleTime = static_cast<double>(record.sampleTime);
        stretch.firstSeconds = record.dueTicks != 0 ? secondsAt(record.dueTicks) : begin;
    }
    if (record.dueTicks == 0)
        return;
    const double due = secondsAt(record.dueTicks);
    stretch.latest = std::max(stretch.latest, begin - due);
    stretch.lateCycles += record.deadlineTicks != 0 && record.endTicks > record.deadlineTicks;
    if (record.context == Context::Timer)
        return; // the timer context plays on no device
    _lateness.note(begin - due);
    _waits.note(secondsAt(record.blocksBeginTicks) - begin);
    _runs.note(run);
    _ends.note(end - due);
    _cycleSeconds = secondsAt(record.deadlineTicks) - due;
}

// ---- Drawing

/// The contexts of the cycles in a stretch; in an empty one that is shorter than a cycle, those before it.
uint32_t CyclePicture::_contextsIn(size_t stretch) const
{
    const bool isShort = _stretchSeconds < 1.5 * _cycleSeconds;
    return _stretches[stretch].contexts == 0 && isShort && stretch > 0 ? _stretches[stretch - 1].contexts
                                                                       : _stretches[stretch].contexts;
}

/// Draws the lanes of the contexts and the devices. Returns the y below them.
double CyclePicture::_drawLanes(Chart& chart, double top, const std::vector<std::string>& deviceNames) const
{
    constexpr size_t maxLanes = 16, nameColumns = 24;
    const double step = laneHeight + (_remarks.empty() ? 0.0 : 12.0); // remarks are below the bars
    chart.text({Chart::left - 12.0, top + 11.0}, "source of the cycles", {Chart::ink, 12.0, "end"});
    _drawContexts(chart, top);
    for (size_t device = 0; device < std::min(deviceNames.size(), maxLanes); ++device) {
        top += device == 0 ? laneHeight : step;
        const std::string name = shortText(deviceNames[device], nameColumns);
        chart.text({Chart::left - 12.0, top + 11.0}, name, {Chart::ink, 12.0, "end"});
        _drawDevice(chart, top, device);
    }
    return top + step;
}

void CyclePicture::_drawContexts(Chart& chart, double top) const
{
    for (size_t i = 0; i < _stretches.size(); ++i) {
        const double from = _x(static_cast<double>(i) * _stretchSeconds);
        const double to = _x(static_cast<double>(i + 1) * _stretchSeconds);
        for (const auto& style : contextStyles)
            if ((_contextsIn(i) & 1U << static_cast<uint32_t>(style.context)) != 0)
                chart.rectangle({from, top}, to - from + 0.3, barHeight, style.colour);
        if (_stretches[i].changes > 0)
            chart.line({from, top - 5.0}, {from, top + barHeight + 5.0}, Chart::ink, 1.4);
    }
    double x = Chart::left;
    for (const auto& style : contextStyles) {
        chart.rectangle({x, top - 24.0}, 12.0, 8.0, style.colour);
        chart.text({x + 18.0, top - 16.0}, style.name, {Chart::ink, 11.0});
        x += 140.0;
    }
    chart.line({x + 4.0, top - 26.0}, {x + 4.0, top - 14.0}, Chart::ink, 1.4);
    chart.text({x + 14.0, top - 16.0}, "new context", {Chart::ink, 11.0});
}

void CyclePicture::_drawDevice(Chart& chart, double top, size_t device) const
{
    bool isConnected = false;
    double from = 0.0;
    for (size_t i = 0; i <= _stretches.size(); ++i) {
        const double at = static_cast<double>(i) * _stretchSeconds;
        const bool isEnd = i == _stretches.size();
        const std::optional<uint64_t> noted = isEnd ? 0 : _stretches[i].devices;
        const bool isNow = noted ? (*noted >> device & 1) != 0 : isConnected;
        if (isConnected && !isNow)
            chart.rectangle({_x(from), top}, std::max(1.0, _x(at) - _x(from)), barHeight, Chart::faint, 0.55);
        else if (!isConnected && isNow)
            from = at;
        isConnected = isNow;
    }
    for (const Remark& remark : _remarks)
        if (remark.device == device) {
            chart.circle({_x(remark.seconds), top + barHeight / 2.0}, 4.0, Chart::ink);
            chart.text({_x(remark.seconds), top + barHeight + 12.0}, shortText(remark.text, 40),
                       {Chart::ink, 10.5, remark.seconds > 0.7 * _lastSeconds ? "end" : "start"});
        }
}

void CyclePicture::_drawTimes(ChartPanel panel) const
{
    for (size_t i = 0; i < _stretches.size(); ++i) {
        const Stretch& stretch = _stretches[i];
        const double at = (static_cast<double>(i) + 0.5) * _stretchSeconds;
        if (stretch.latest >= 0.0)
            panel.dot({at, stretch.latest}, latenessColour);
        if (stretch.longest >= 0.0)
            panel.dot({at, stretch.longest}, runColour);
        if (stretch.lateCycles > 0)
            panel.dot({at, longestSeconds}, deadlineColour);
    }
    if (_cycleSeconds > 0.0)
        panel.horizontal(_cycleSeconds, deadlineColour);
}

void CyclePicture::_drawProgress(Chart& chart, double top, double height, double sampleRate) const
{
    std::vector<Chart::Point> points; // x: seconds; y: difference in milliseconds
    for (const Stretch& stretch : _stretches)
        if (stretch.firstSampleTime >= 0.0) {
            const double runnerSeconds = stretch.firstSampleTime / std::max(sampleRate, 1.0);
            points.push_back({stretch.firstSeconds, 1e3 * (runnerSeconds - stretch.firstSeconds)});
        }
    const auto [low, high] = std::ranges::minmax(
        points.empty() ? std::vector{Chart::Point{0.0, 0.0}} : points, {}, &Chart::Point::y);
    const double room = std::max(0.15 * (high.y - low.y), 2.5);
    ChartPanel(chart, top, height, "the runner's time less the clock: falls while no block is called",
               _timeAxis(), {low.y - room, high.y + room, chartLabel(" ms")}, {{"", Chart::ink, points}});
}

/// Draws the histograms and a table of their quantiles. Returns the y below them.
double CyclePicture::_drawDistribution(Chart& chart, double top, double height) const
{
    const struct {
        const TickHistogram& histogram;
        const char *name, *colour;
    } rows[] = {{_lateness, "began after it was due", latenessColour},
                {_waits, "waited for the queue", waitColour},
                {_runs, "blocks ran", runColour},
                {_ends, "ended after it was due", endColour}};
    std::vector<ChartCurve> curves; // without names: the table has them
    for (const auto& row : rows)
        curves.push_back({"", row.colour, row.histogram.outline(shortestSeconds, longestSeconds)});
    const double decades = std::max(1.0, std::ceil(std::log10(std::max<uint64_t>(1, _runs.count()))));
    ChartPanel panel(chart, top, height, "how many cycles took how long (both scales logarithmic)",
                     {shortestSeconds, longestSeconds, timeText, true},
                     {0.8, std::pow(10.0, decades),
                      [](double count) { return formatNumber(static_cast<uint64_t>(count)); }, true},
                     curves);
    double y = panel.bottom() + 44.0;
    const auto cells = [&](const std::vector<std::string>& texts, const char* colour) {
        for (size_t i = 0; i < texts.size(); ++i)
            chart.text({i == 0 ? Chart::left : Chart::left + 190.0 + 110.0 * static_cast<double>(i), y},
                       texts[i], {colour, 12.0, i == 0 ? "start" : "end"});
        y += 18.0;
    };
    cells({formatCount(_runs.count(), "cycle") + " of devices", "half", "99 %", "99.9 %", "longest"},
          Chart::faint);
    for (const auto& [histogram, name, colour] : rows)
        cells({name, timeText(histogram.quantileSeconds(0.5)), timeText(histogram.quantileSeconds(0.99)),
               timeText(histogram.quantileSeconds(0.999)), timeText(histogram.longestSeconds())},
              colour);
    if (_cycleSeconds > 0.0)
        panel.vertical(_cycleSeconds, deadlineColour, "a cycle: " + timeText(_cycleSeconds));
    return y;
}

std::string CyclePicture::svg(double sampleRate, const std::vector<std::string>& deviceNames,
                              const std::string& title, const std::string& results) const
{
    constexpr double smallHeight = 0.6 * panelHeight, pointGap = 0.35; // seconds
    Chart chart;
    double top = _drawLanes(chart, chart.title(title, results) + 10.0, deviceNames) + 24.0;
    _drawTimes(ChartPanel(chart, top, panelHeight, "the worst cycle of each moment", _timeAxis(),
                          {shortestSeconds, longestSeconds, timeText, true},
                          {{"blocks ran", runColour},
                           {"began after it was due", latenessColour},
                           {"the duration of a cycle, and cycles that took longer", deadlineColour}}));
    top += panelHeight + ChartPanel::below;
    _drawProgress(chart, top, smallHeight, sampleRate);
    for (const Panel& each : _panels) {
        top += smallHeight + ChartPanel::below;
        ChartPanel(chart, top, smallHeight, each.title, _timeAxis(),
                   {each.from, each.to, chartLabel(each.unit)}, each.curves, pointGap);
    }
    return chart.svg(_drawDistribution(chart, top + smallHeight + ChartPanel::below, panelHeight) + 20.0);
}
