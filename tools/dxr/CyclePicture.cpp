#include "CyclePicture.h"

#include "DisplayText.h"
#include "SvgShapes.h"
#include "TextFormat.h"

#include <algorithm>
#include <cmath>
#include <dxr/HostClock.h>

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

namespace {

constexpr size_t mostStretches = 800;

// The picture's measures, in its own units.
constexpr double width = 1000.0, left = 190.0, right = 960.0;
constexpr double firstTop = 92.0, laneHeight = 26.0, barHeight = 14.0, panelHeight = 170.0, panelGap = 52.0;
// The times that are shown, in decades of seconds.
constexpr double firstDecade = -6.5, lastDecade = -1.0;
constexpr int firstLine = -6, lastLine = -1; // of their grid

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

double decadeOf(double seconds)
{
    return std::clamp(std::log10(std::max(seconds, 1e-9)), firstDecade, lastDecade);
}

/// Where a time stands between the first and the last decade, 0 to 1.
double shareOf(double seconds)
{
    return (decadeOf(seconds) - firstDecade) / (lastDecade - firstDecade);
}

std::string timeText(double seconds)
{
    return seconds < 0.9995e-3 ? formatText("%.3g µs", seconds * 1e6)
           : seconds < 0.9995  ? formatText("%.3g ms", seconds * 1e3)
                               : formatText("%.3g s", seconds);
}

} // namespace

// ---- Taking in

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
    while (place >= mostStretches) {
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

double CyclePicture::_secondsAt(uint64_t ticks) const
{
    using HostClock = platform::HostClock;
    return static_cast<double>(static_cast<int64_t>(ticks - _beginTicks)) * HostClock::nanosecondsNumerator /
           HostClock::nanosecondsDenominator / 1e9;
}

void CyclePicture::note(const DXRCycleRecord& record)
{
    if (_beginTicks == 0)
        _beginTicks = record.beginTicks;
    const double begin = _secondsAt(record.beginTicks), end = _secondsAt(record.endTicks);
    _lastSeconds = std::max(_lastSeconds, end);
    Stretch& stretch = _stretchAt(begin);
    if (record.event != Event::Cycle) {
        stretch.changes += record.event == Event::ContextStarted;
        return;
    }
    stretch.contexts |= 1U << static_cast<uint32_t>(record.context);
    const double run = end - _secondsAt(record.blocksBeginTicks);
    stretch.longest = std::max(stretch.longest, run);
    if (stretch.firstSampleTime < 0.0) {
        stretch.firstSampleTime = static_cast<double>(record.sampleTime);
        stretch.firstSeconds = record.dueTicks != 0 ? _secondsAt(record.dueTicks) : begin;
    }
    if (record.dueTicks == 0)
        return;
    const double due = _secondsAt(record.dueTicks);
    stretch.latest = std::max(stretch.latest, begin - due);
    stretch.lateCycles += record.deadlineTicks != 0 && record.endTicks > record.deadlineTicks;
    if (record.context == Context::Timer)
        return; // nobody hears it
    _lateness.note(begin - due);
    _waits.note(_secondsAt(record.blocksBeginTicks) - begin);
    _runs.note(run);
    _ends.note(end - due);
    _cycleSeconds = _secondsAt(record.deadlineTicks) - due;
}

void CyclePicture::notePresence(const std::vector<bool>& isThere)
{
    uint64_t devices = 0;
    for (size_t i = 0; i < std::min<size_t>(isThere.size(), 64); ++i)
        devices |= isThere[i] ? uint64_t{1} << i : 0;
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

double CyclePicture::_x(double seconds) const
{
    return left + (right - left) * std::clamp(seconds / _duration(), 0.0, 1.0);
}

std::string CyclePicture::_timeGrid(double top, double bottom) const
{
    std::string grid;
    const double step = svgNiceStep(_duration());
    for (int i = 0; i * step <= _duration() * 1.0001; ++i) {
        const double at = i * step;
        grid += svgLine(_x(at), top, _x(at), bottom);
        grid += svgText(_x(at), bottom + 16.0, formatText("%g s", at), svgFaint, 11.0, "middle");
    }
    return grid;
}

/// Where cycles came from in a stretch; one too short for a cycle goes with the one before.
uint32_t CyclePicture::_contextsIn(size_t stretch) const
{
    const bool isShort = _stretchSeconds < 1.5 * _cycleSeconds;
    return _stretches[stretch].contexts == 0 && isShort && stretch > 0 ? _stretches[stretch - 1].contexts
                                                                       : _stretches[stretch].contexts;
}

std::string CyclePicture::_contextLane(double top) const
{
    std::string lane = svgText(left - 12.0, top + 11.0, "cycles come from", svgInk, 12.0, "end");
    for (size_t i = 0; i < _stretches.size(); ++i) {
        const double from = _x(static_cast<double>(i) * _stretchSeconds);
        const double to = _x(static_cast<double>(i + 1) * _stretchSeconds);
        for (const ContextStyle& style : contextStyles)
            if ((_contextsIn(i) & 1U << static_cast<uint32_t>(style.context)) != 0)
                lane += svgRectangle(from, top, to - from + 0.3, barHeight, style.colour, 0.8);
        if (_stretches[i].changes > 0)
            lane += svgLine(from, top - 5.0, from, top + barHeight + 5.0, svgInk, 1.4);
    }
    double x = left;
    for (const ContextStyle& style : contextStyles) {
        lane += svgRectangle(x, top - 24.0, 12.0, 8.0, style.colour, 0.8);
        lane += svgText(x + 18.0, top - 16.0, style.name, svgInk, 11.0);
        x += 140.0;
    }
    lane += svgLine(x + 4.0, top - 26.0, x + 4.0, top - 14.0, svgInk, 1.4);
    return lane + svgText(x + 14.0, top - 16.0, "new context", svgInk, 11.0);
}

std::string CyclePicture::_deviceLane(size_t device, const std::string& name, double top) const
{
    std::string lane =
        svgText(left - 12.0, top + 11.0, clipToWidth(singleLine(name), 24), svgInk, 12.0, "end");
    bool isThere = false; // until somebody looks again
    double from = 0.0;
    for (size_t i = 0; i <= _stretches.size(); ++i) {
        const double at = static_cast<double>(i) * _stretchSeconds;
        const bool isEnd = i == _stretches.size();
        const bool isThereNow =
            !isEnd && (_stretches[i].hasPresence ? (_stretches[i].devices >> device & 1) != 0 : isThere);
        if (isThere && !isThereNow)
            lane += svgRectangle(_x(from), top, std::max(1.0, _x(at) - _x(from)), barHeight, svgFaint, 0.55);
        else if (!isThere && isThereNow)
            from = at;
        isThere = isThereNow;
    }
    return lane;
}

std::string CyclePicture::_timesPanel(double top) const
{
    const double bottom = top + panelHeight;
    const auto y = [&](double seconds) { return bottom - panelHeight * shareOf(seconds); };
    std::string panel =
        svgText(left, top - 10.0, "the worst cycle of each moment", svgInk, 13.0, "start", "600");
    for (int decade = firstLine; decade <= lastLine; ++decade) {
        const double seconds = std::pow(10.0, decade);
        panel += svgLine(left, y(seconds), right, y(seconds));
        panel += svgText(left - 8.0, y(seconds) + 4.0, timeText(seconds), svgFaint, 11.0, "end");
    }
    panel += _timeGrid(top, bottom);
    for (size_t i = 0; i < _stretches.size(); ++i) {
        const Stretch& stretch = _stretches[i];
        const double x = _x((static_cast<double>(i) + 0.5) * _stretchSeconds);
        for (const auto& [seconds, colour] :
             {std::pair(stretch.latest, latenessColour), std::pair(stretch.longest, runColour)})
            if (seconds >= 0.0)
                panel += formatText("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"1.3\" fill=\"%s\"/>\n", x,
                                    y(seconds), colour);
        if (stretch.lateCycles > 0)
            panel += svgLine(x, top, x, top + 10.0, deadlineColour, 2.0);
    }
    if (_cycleSeconds > 0.0)
        panel += svgLine(left, y(_cycleSeconds), right, y(_cycleSeconds), deadlineColour, 1.4, true);
    panel += svgText(right, top - 10.0, "blocks ran", runColour, 11.0, "end");
    panel += svgText(right - 80.0, top - 10.0, "came in after it was due", latenessColour, 11.0, "end");
    return panel + svgText(right - 240.0, top - 10.0, "what a cycle has, and cycles that took longer",
                           deadlineColour, 11.0, "end");
}

std::string CyclePicture::_progressPanel(double top, double sampleRate) const
{
    const double height = panelHeight * 0.6, bottom = top + height;
    std::string panel = svgText(left, top - 10.0,
                                "the runner's time less the clock on the wall: down while no block is called",
                                svgInk, 13.0, "start", "600");
    std::vector<std::pair<double, double>> points; // seconds, and seconds of difference
    for (const Stretch& stretch : _stretches)
        if (stretch.firstSampleTime >= 0.0)
            points.emplace_back(stretch.firstSeconds,
                                stretch.firstSampleTime / std::max(sampleRate, 1.0) - stretch.firstSeconds);
    if (points.empty())
        return panel;
    const auto [least, most] =
        std::ranges::minmax(points, {}, [](const auto& point) { return point.second; });
    const double span = std::max(1.3 * (most.second - least.second), 0.005);
    const double middle = (most.second + least.second) / 2.0;
    const auto y = [&](double difference) { return bottom - height * ((difference - middle) / span + 0.5); };
    const double step = svgNiceStep(span);
    for (int i = static_cast<int>(std::ceil((middle - span / 2.0) / step)); i * step <= middle + span / 2.0;
         ++i) {
        const double value = i * step;
        panel += svgLine(left, y(value), right, y(value));
        panel += svgText(left - 8.0, y(value) + 4.0,
                         formatText("%.4g ms", std::abs(value) < step / 2.0 ? 0.0 : value * 1e3), svgFaint,
                         11.0, "end");
    }
    panel += _timeGrid(top, bottom);
    std::string path;
    for (const auto& [seconds, difference] : points)
        path += formatText("%c%.1f %.1f ", path.empty() ? 'M' : 'L', _x(seconds), y(difference));
    return panel + "<path fill=\"none\" stroke=\"" + svgInk + "\" stroke-width=\"1.5\" d=\"" + path +
           "\"/>\n";
}

std::string CyclePicture::_distributionPanel(double top) const
{
    struct Curve {
        const TickHistogram& histogram;
        const char* name;
        const char* colour;
    };
    const Curve curves[] = {{_lateness, "came in after it was due", latenessColour},
                            {_waits, "waited for its turn", waitColour},
                            {_runs, "blocks ran", runColour},
                            {_ends, "done after it was due", endColour}};
    const double bottom = top + panelHeight;
    const double mostDecades =
        std::max(1.0, std::ceil(std::log10(std::max<double>(1.0, static_cast<double>(_runs.count())))));
    const auto x = [](double seconds) { return left + (right - left) * shareOf(seconds); };
    const auto y = [&](uint64_t count) {
        return count == 0 ? bottom
                          : bottom - 8.0 -
                                (panelHeight - 8.0) * std::log10(static_cast<double>(count)) / mostDecades;
    };
    std::string panel = svgText(left, top - 10.0, "how many cycles took how long (both scales logarithmic)",
                                svgInk, 13.0, "start", "600");
    for (int decade = firstLine; decade <= lastLine; ++decade) {
        const double seconds = std::pow(10.0, decade);
        panel += svgLine(x(seconds), top, x(seconds), bottom);
        panel += svgText(x(seconds), bottom + 16.0, timeText(seconds), svgFaint, 11.0, "middle");
    }
    for (int decade = 0; decade <= mostDecades; ++decade) {
        const auto count = static_cast<uint64_t>(std::pow(10.0, decade));
        panel += svgLine(left, y(count), right, y(count));
        panel += svgText(left - 8.0, y(count) + 4.0, formatCount(count, "", ""), svgFaint, 11.0, "end");
    }
    double row = bottom + 44.0;
    const auto cells = [&](const std::vector<std::string>& texts, const char* colour) {
        for (size_t i = 0; i < texts.size(); ++i)
            panel += svgText(i == 0 ? left : left + 190.0 + 110.0 * static_cast<double>(i), row, texts[i],
                             colour, 12.0, i == 0 ? "start" : "end");
        row += 18.0;
    };
    cells(
        {formatCount(_runs.count(), "cycle", "cycles") + " of devices", "half", "99 %", "99.9 %", "longest"},
        svgFaint);
    for (const Curve& curve : curves) {
        std::string path;
        for (size_t bin = 0; bin < TickHistogram::binCount; ++bin) {
            const double from = x(TickHistogram::beginOf(bin)), to = x(TickHistogram::beginOf(bin + 1));
            if (to <= from)
                continue; // beyond what is shown
            const double height = y(curve.histogram.countIn(bin));
            path += formatText("%c%.1f %.1f L%.1f %.1f ", path.empty() ? 'M' : 'L', from, height, to, height);
        }
        panel += formatText("<path fill=\"none\" stroke=\"%s\" stroke-width=\"1.6\" d=\"", curve.colour) +
                 path + "\"/>\n";
        cells({curve.name, timeText(curve.histogram.quantileSeconds(0.5)),
               timeText(curve.histogram.quantileSeconds(0.99)),
               timeText(curve.histogram.quantileSeconds(0.999)), timeText(curve.histogram.longestSeconds())},
              curve.colour);
    }
    if (_cycleSeconds > 0.0)
        panel += svgLine(x(_cycleSeconds), top, x(_cycleSeconds), bottom, deadlineColour, 1.4, true) +
                 svgText(x(_cycleSeconds) + 6.0, top + 12.0, "a cycle: " + timeText(_cycleSeconds),
                         deadlineColour, 11.0);
    return panel;
}

std::string CyclePicture::svg(double sampleRate, const std::vector<std::string>& deviceNames,
                              const std::string& title, const std::string& results) const
{
    constexpr size_t mostLanes = 16;
    const size_t lanes = std::min(deviceNames.size(), mostLanes);
    const double lanesTop = firstTop + 24.0;
    const double timesTop = lanesTop + laneHeight * static_cast<double>(lanes + 1) + 44.0;
    const double progressTop = timesTop + panelHeight + panelGap;
    const double distributionTop = progressTop + panelHeight * 0.6 + panelGap;
    std::string picture = svgHead(width, distributionTop + panelHeight + 150.0);
    picture += svgText(24.0, 36.0, title, svgInk, 20.0, "start", "600");
    picture += svgText(24.0, 60.0, results, svgFaint, 13.0);
    picture += _contextLane(lanesTop);
    for (size_t lane = 0; lane < lanes; ++lane)
        picture +=
            _deviceLane(lane, deviceNames[lane], lanesTop + laneHeight * static_cast<double>(lane + 1));
    picture +=
        _timesPanel(timesTop) + _progressPanel(progressTop, sampleRate) + _distributionPanel(distributionTop);
    return picture + "</svg>\n";
}
