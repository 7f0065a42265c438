#include "RunPicture.h"

#include "DisplayText.h"
#include "TextFormat.h"

#include <algorithm>
#include <cmath>

namespace {

// The picture's measures, in its own units.
constexpr double width = 1000.0;
constexpr double left = 190.0;
constexpr double right = 970.0;
constexpr double levelsTop = 96.0;
constexpr double panelHeight = 110.0;
constexpr double panelGap = 26.0;
constexpr double laneHeight = 40.0;
constexpr double floorDecibels = -48.0;

constexpr const char* ink = "#1d2433";
constexpr const char* faint = "#8a93a6";
constexpr const char* grid = "#e6e9f0";
constexpr const char* outputColour = "#3b82c4";
constexpr const char* inputColour = "#e07a3f";
constexpr const char* laneColours[] = {"#5b8def", "#43a68b", "#b07cc6", "#d9903d",
                                       "#6c7a96", "#c75d6b", "#4fa3c7"};

std::string escaped(const std::string& text)
{
    std::string safe;
    for (const char character : singleLine(text)) {
        switch (character) {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        case '"':
            safe += "&quot;";
            break;
        default:
            safe += character;
        }
    }
    return safe;
}

double xAt(double at, double seconds)
{
    return left + (right - left) * std::clamp(at / std::max(seconds, 0.001), 0.0, 1.0);
}

double yAt(float level, double top)
{
    const double decibels = level > 0.0F ? 20.0 * std::log10(double{level}) : floorDecibels;
    return top + panelHeight * std::clamp(decibels / floorDecibels, 0.0, 1.0);
}

std::string text(double x, double y, const std::string& content, const char* colour, double size,
                 const char* anchor = "start", const char* weight = "400")
{
    return formatText("<text x=\"%.1f\" y=\"%.1f\" fill=\"%s\" font-size=\"%.1f\" text-anchor=\"%s\" "
                      "font-weight=\"%s\">",
                      x, y, colour, size, anchor, weight) +
           escaped(content) + "</text>\n";
}

std::string line(double x1, double y1, double x2, double y2, const char* colour, double thickness = 1.0)
{
    return formatText(
        "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"%.1f\"/>\n", x1,
        y1, x2, y2, colour, thickness);
}

std::string secondsGrid(double seconds, double top, double bottom)
{
    std::string lines;
    const int step = seconds > 40.0 ? 10 : seconds > 15.0 ? 5 : 1;
    for (int second = 0; second <= static_cast<int>(seconds + 0.01); second += step) {
        const auto at = static_cast<double>(second);
        lines += line(xAt(at, seconds), top, xAt(at, seconds), bottom, grid);
        lines += text(xAt(at, seconds), bottom + 18.0, formatText("%g s", at), faint, 11.0, "middle");
    }
    return lines;
}

} // namespace

void RunPicture::addLevels(double seconds, std::vector<float> input, std::vector<float> output)
{
    _levels.push_back({seconds, std::move(input), std::move(output)});
}

RunPicture::Lane* RunPicture::_lane(const std::string& uid)
{
    const auto found = std::ranges::find(_lanes, uid, &Lane::uid);
    return found == _lanes.end() ? nullptr : &*found;
}

void RunPicture::deviceCame(double seconds, const std::string& uid, const std::string& name)
{
    if (!_lane(uid))
        _lanes.push_back({uid, name, {}, {}});
    _lane(uid)->presences.push_back({seconds, -1.0});
}

void RunPicture::deviceGone(double seconds, const std::string& uid)
{
    if (Lane* lane = _lane(uid); lane && !lane->presences.empty())
        lane->presences.back().to = seconds;
}

void RunPicture::note(double seconds, const std::string& uid, const std::string& what)
{
    if (Lane* lane = _lane(uid))
        lane->notes.push_back({seconds, what});
}

std::string RunPicture::_levelPanel(size_t channel, double top, double seconds) const
{
    std::string panel =
        text(left - 12.0, top + 14.0, formatText("channel %zu", channel + 1), ink, 13.0, "end", "600");
    for (const double decibels : {0.0, -12.0, -24.0, -36.0, -48.0}) {
        const double y = top + panelHeight * decibels / floorDecibels;
        panel += line(left, y, right, y, grid);
        panel += text(right + 4.0, y + 3.0, formatText("%.0f", decibels), faint, 9.0);
    }
    std::string output = formatText("M %.1f %.1f", left, top + panelHeight);
    std::string input;
    double lastX = left;
    for (const Levels& levels : _levels) {
        if (channel >= levels.input.size() || channel >= levels.output.size())
            continue;
        lastX = xAt(levels.seconds, seconds);
        output += formatText(" L %.1f %.1f", lastX, yAt(levels.output[channel], top));
        input +=
            formatText("%s %.1f %.1f", input.empty() ? "M" : " L", lastX, yAt(levels.input[channel], top));
    }
    output += formatText(" L %.1f %.1f Z", lastX, top + panelHeight);
    panel += "<path d=\"" + output + "\" fill=\"" + outputColour + "\" fill-opacity=\"0.28\"/>\n";
    if (!input.empty())
        panel +=
            "<path d=\"" + input + "\" fill=\"none\" stroke=\"" + inputColour + "\" stroke-width=\"1.6\"/>\n";
    return panel;
}

std::string RunPicture::_lanePanel(const Lane& lane, double top, double seconds) const
{
    constexpr double barHeight = 14.0;
    const size_t index = static_cast<size_t>(&lane - _lanes.data()) % std::size(laneColours);
    const char* colour = laneColours[index];
    std::string panel =
        text(left - 12.0, top + 12.0, clipToWidth(singleLine(lane.name), 24), ink, 12.0, "end");
    for (const Presence& presence : lane.presences) {
        const double from = xAt(presence.from, seconds);
        const double to = xAt(presence.to < 0.0 ? seconds : presence.to, seconds);
        panel += formatText("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" rx=\"4\" fill=\"%s\" "
                            "fill-opacity=\"0.75\"/>\n",
                            from, top, std::max(1.0, to - from), barHeight, colour);
    }
    double roomFrom = left; // notes that would run into one another share a place
    for (const Note& note : lane.notes) {
        const double x = xAt(note.seconds, seconds);
        panel += formatText("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"4\" fill=\"#fff\" stroke=\"%s\" "
                            "stroke-width=\"1.8\"/>\n",
                            x, top + barHeight / 2.0, ink);
        const std::string what = clipToWidth(singleLine(note.what), 40);
        const double length = 5.6 * static_cast<double>(displayWidth(what));
        const bool isAtEnd = x + length > right;
        if (x >= roomFrom || isAtEnd)
            panel += text(x, top + barHeight + 13.0, what, ink, 10.5, isAtEnd ? "end" : "start");
        roomFrom = x + length + 8.0;
    }
    return panel;
}

std::string RunPicture::svg(double seconds, const std::string& title, const std::string& results) const
{
    size_t channels = 0;
    for (const Levels& levels : _levels)
        channels = std::max(channels, std::min<size_t>(levels.input.size(), 2));
    const double levelsBottom = levelsTop + static_cast<double>(channels) * (panelHeight + panelGap);
    const double lanesTop = levelsBottom + 34.0;
    const double lanesBottom = lanesTop + laneHeight * static_cast<double>(_lanes.size());
    const double height = lanesBottom + 44.0;

    std::string picture = formatText(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" "
        "font-family=\"DejaVu Sans, Helvetica, Arial, sans-serif\">\n",
        width, height, width, height);
    picture += formatText("<rect width=\"%.0f\" height=\"%.0f\" fill=\"#fdfdfe\"/>\n", width, height);
    picture += text(24.0, 36.0, title, ink, 20.0, "start", "600");
    picture += text(24.0, 60.0, results, faint, 13.0);
    picture += formatText(
        "<rect x=\"%.1f\" y=\"74\" width=\"14\" height=\"8\" fill=\"%s\" fill-opacity=\"0.28\"/>\n",
        left + 110.0, outputColour);
    picture += text(left + 130.0, 82.0, "output", ink, 11.0);
    picture += line(left, 78.0, left + 14.0, 78.0, inputColour, 2.0);
    picture += text(left + 20.0, 82.0, "input", ink, 11.0);
    picture += text(right, 82.0, "peak level, dB of full scale", faint, 11.0, "end");
    picture += secondsGrid(seconds, levelsTop, lanesBottom);
    for (size_t channel = 0; channel < channels; ++channel)
        picture += _levelPanel(channel, levelsTop + static_cast<double>(channel) * (panelHeight + panelGap),
                               seconds);
    picture += text(left - 12.0, lanesTop - 12.0, "devices", ink, 13.0, "end", "600");
    for (size_t lane = 0; lane < _lanes.size(); ++lane)
        picture += _lanePanel(_lanes[lane], lanesTop + laneHeight * static_cast<double>(lane), seconds);
    return picture + "</svg>\n";
}
