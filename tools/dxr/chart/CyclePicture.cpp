#include "CyclePicture.h"

#include "CycleStatistics.h"
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

struct ContextStyle {
    Context context;
    const char* name;
    const char* colour;
};
constexpr ContextStyle contextStyles[] = {{Context::Aggregate, "several devices", "#3b82c4"},
                                          {Context::Device, "one device", "#43a68b"},
                                          {Context::Timer, "timer, no device", "#d9903d"}};

std::string timeText(double seconds)
{
    return seconds < 0.9995e-3 ? formatText("%.3g µs", seconds * 1e6)
           : seconds < 0.9995  ? formatText("%.3g ms", seconds * 1e3)
                               : formatText("%.3g s", seconds);
}

} // namespace

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
    devices = hasPresence && next.hasPresence ? devices & next.devices : devices | next.devices;
    hasPresence = hasPresence || next.hasPresence;
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

double CyclePicture::secondsAt(uint64_t ticks) const
{
    return secondsOf(ticks - _beginTicks);
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

void CyclePicture::notePresence(const std::vector<bool>& isConnected)
{
    uint64_t devices = 0;
    for (size_t i = 0; i < std::min<size_t>(isConnected.size(), 64); ++i)
        devices |= isConnected[i] ? uint64_t{1} << i : 0;
    Stretch seen;
    seen.devices = devices;
    seen.hasPresence = true;
    _stretchAt(_lastSeconds).take(seen);
}

// ---- Drawing

double CyclePicture::_duration() const
{
    return std::max(_lastSeconds, 0.001);
}

ChartAxis CyclePicture::_timeAxis() const
{
    return {0.0, _duration(), chartLabel(" s")};
}

double CyclePicture::_x(double seconds) const
{
    return Chart::left + (Chart::right - Chart::left) * _timeAxis().share(seconds);
}

/// The contexts of the cycles in a stretch. If stretches are shorter than cycles and this one is empty, the
/// contexts of the stretch before.
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
    const bool hasRemarks = !_remarks.empty();
    chart.text({Chart::left - 12.0, top + 11.0}, "source of the cycles", {Chart::ink, 12.0, "end"});
    _drawContexts(chart, top);
    for (size_t device = 0; device < std::min(deviceNames.size(), maxLanes); ++device) {
        top += device == 0 || !hasRemarks ? laneHeight : laneHeight + 12.0;
        const std::string name = shortText(deviceNames[device], nameColumns);
        chart.text({Chart::left - 12.0, top + 11.0}, name, {Chart::ink, 12.0, "end"});
        _drawDevice(chart, top, device);
    }
    return top + laneHeight + (hasRemarks ? 12.0 : 0.0);
}

void CyclePicture::_drawContexts(Chart& chart, double top) const
{
    for (size_t i = 0; i < _stretches.size(); ++i) {
        const double from = _x(static_cast<double>(i) * _stretchSeconds);
        const double to = _x(static_cast<double>(i + 1) * _stretchSeconds);
        for (const ContextStyle& style : contextStyles)
            if ((_contextsIn(i) & 1U << static_cast<uint32_t>(style.context)) != 0)
                chart.rectangle({from, top}, to - from + 0.3, barHeight, style.colour);
        if (_stretches[i].changes > 0)
            chart.line({from, top - 5.0}, {from, top + barHeight + 5.0}, Chart::ink, 1.4);
    }
    double x = Chart::left;
    for (const ContextStyle& style : contextStyles) {
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
        const bool isNow =
            !isEnd && (_stretches[i].hasPresence ? (_stretches[i].devices >> device & 1) != 0 : isConnected);
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
                       {Chart::ink, 10.5, remark.seconds > 0.7 * _duration() ? "end" : "start"});
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
    std::vector<double> differences;
    for (const Stretch& stretch : _stretches)
        if (stretch.firstSampleTime >= 0.0) {
            const double runnerSeconds = stretch.firstSampleTime / std::max(sampleRate, 1.0);
            points.push_back({stretch.firstSeconds, 1e3 * (runnerSeconds - stretch.firstSeconds)});
            differences.push_back(points.back().y);
        }
    const auto [min, max] = std::ranges::minmax(differences.empty() ? std::vector{0.0} : differences);
    const double room = std::max(0.15 * (max - min), 2.5);
    ChartPanel(chart, top, height, "the runner's time less the clock: falls while no block is called",
               _timeAxis(), {min - room, max + room, chartLabel(" ms")})
        .curve(points, Chart::ink);
}

/// Draws the histograms and a table of their quantiles. Returns the y below them.
double CyclePicture::_drawDistribution(Chart& chart, double top, double height) const
{
    const struct {
        const TickHistogram& histogram;
        const char* name;
        const char* colour;
    } curves[] = {{_lateness, "began after it was due", latenessColour},
                  {_waits, "waited for the queue", waitColour},
                  {_runs, "blocks ran", runColour},
                  {_ends, "ended after it was due", endColour}};
    const double decades =
        std::max(1.0, std::ceil(std::log10(std::max<double>(1.0, static_cast<double>(_runs.count())))));
    ChartPanel panel(chart, top, height, "how many cycles took how long (both scales logarithmic)",
                     {shortestSeconds, longestSeconds, timeText, true},
                     {0.8, std::pow(10.0, decades),
                      [](double count) { return formatNumber(static_cast<uint64_t>(count + 0.5)); }, true});
    double row = panel.bottom() + 44.0;
    const auto cells = [&](const std::vector<std::string>& texts, const char* colour) {
        for (size_t i = 0; i < texts.size(); ++i)
            chart.text({i == 0 ? Chart::left : Chart::left + 190.0 + 110.0 * static_cast<double>(i), row},
                       texts[i], {colour, 12.0, i == 0 ? "start" : "end"});
        row += 18.0;
    };
    cells({formatCount(_runs.count(), "cycle") + " of devices", "half", "99 %", "99.9 %", "longest"},
          Chart::faint);
    for (const auto& [histogram, name, colour] : curves) {
        std::vector<Chart::Point> steps;
        for (size_t bin = 0; bin < TickHistogram::binCount; ++bin)
            for (const size_t edge : {bin, bin + 1})
                if (TickHistogram::beginOf(edge) > shortestSeconds &&
                    TickHistogram::beginOf(edge) < longestSeconds)
                    steps.push_back(
                        {TickHistogram::beginOf(edge), static_cast<double>(histogram.countIn(bin))});
        panel.curve(steps, colour);
        cells({name, timeText(histogram.quantileSeconds(0.5)), timeText(histogram.quantileSeconds(0.99)),
               timeText(histogram.quantileSeconds(0.999)), timeText(histogram.longestSeconds())},
              colour);
    }
    if (_cycleSeconds > 0.0)
        panel.vertical(_cycleSeconds, deadlineColour, "a cycle: " + timeText(_cycleSeconds));
    return row;
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
        std::vector<ChartPanel::Name> names;
        for (const Panel::Curve& curve : each.curves)
            names.push_back({curve.name, curve.colour});
        ChartPanel panel(chart, top, smallHeight, each.title, _timeAxis(),
                         {each.from, each.to, chartLabel(each.unit)}, names);
        for (const Panel::Curve& curve : each.curves)
            panel.curve(curve.points, curve.colour, pointGap);
    }
    return chart.svg(_drawDistribution(chart, top + smallHeight + ChartPanel::below, panelHeight) + 20.0);
}
