#include "MonitorView.h"

#include "DisplayText.h"
#include "LevelBar.h"
#include "TextFormat.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr size_t nameLeast = 12, nameMost = 32;
constexpr double lateShare = 0.8; // of a cycle: from here on the next may be late

/// A line of pieces in styles, cut where the width ends.
class Line {
public:
    Line(size_t columns, const Terminal& terminal) : _room(columns), _terminal(terminal) {}

    Line& add(const std::string& printable, Style style = Style::Plain)
    {
        const std::string piece = clipToWidth(printable, _room);
        _room -= std::min(_room, displayWidth(piece));
        _text += _terminal.styled(piece, style);
        return *this;
    }
    /// What has its own styles and takes `columns`; left out when there is no room for it.
    Line& addStyled(const std::string& styled, size_t columns)
    {
        if (columns > _room)
            return *this;
        _room -= columns;
        _text += styled;
        return *this;
    }
    size_t room() const { return _room; }
    const std::string& text() const { return _text; }

private:
    size_t _room;
    const Terminal& _terminal;
    std::string _text;
};

class View {
public:
    View(const MonitorState& state, size_t columns, const Terminal& terminal)
        : _state(state), _columns(columns), _terminal(terminal)
    {}

    Line line() const { return {_columns, _terminal}; }
    std::string title() const;
    std::string cycle() const;
    std::vector<std::string> counts() const;
    std::vector<std::string> devices() const;
    std::vector<std::string> others() const;
    std::string keys() const { return line().add(_state.keys, Style::Dim).text(); }
    std::string text(const std::string& content, Style style) const
    {
        return line().add(singleLine(content), style).text();
    }

private:
    std::string _device(const MonitorState::Device& device, size_t nameWidth) const;

    const MonitorState& _state;
    const size_t _columns;
    const Terminal& _terminal;
};

std::string View::title() const
{
    Line title = line();
    title.add("dxr monitor  ", Style::Bold).add(formatSeconds(_state.seconds) + "  ", Style::Dim);
    title.add(_state.context, Style::Cyan);
    if (_state.frameCount > 0)
        title.add("  " + formatRate(_state.sampleRate) +
                  formatText(", blocks of %u frames", _state.frameCount));
    return title.text();
}

std::string View::cycle() const
{
    constexpr size_t barMost = 40, numbers = 40;
    Line cycle = line();
    cycle.add("cycle  ");
    if (_state.cycleSeconds <= 0.0)
        return cycle.add("none yet", Style::Dim).text();
    const double share = _state.usedSeconds / _state.cycleSeconds;
    const Style style = share > 1.0 ? Style::Red : share > lateShare ? Style::Yellow : Style::Green;
    const size_t width = std::min(barMost, cycle.room() - std::min(cycle.room(), numbers));
    const auto full =
        static_cast<size_t>(std::lround(std::clamp(share, 0.0, 1.0) * static_cast<double>(width)));
    std::string used, rest;
    for (size_t i = 0; i < width; ++i)
        (i < full ? used : rest) += i < full ? "█" : "·";
    cycle.add(used, style).add(rest, Style::Dim);
    cycle.add(formatText(" %.2f of %.2f ms", _state.usedSeconds * 1e3, _state.cycleSeconds * 1e3), style);
    return cycle.add(formatText(", %.2f at most", _state.longestSeconds * 1e3)).text();
}

std::vector<std::string> View::counts() const
{
    Line counts = line();
    counts.add("       " + formatCount(_state.cycles, "cycle", "cycles") + ", ");
    counts.add(formatCount(_state.lateCycles, "late", "late"),
               _state.lateCycles > 0 ? Style::Red : Style::Plain);
    counts.add(", ").add(formatCount(_state.lostFrames, "frame", "frames") + " lost in " +
                             formatCount(_state.gaps, "gap", "gaps"),
                         _state.gaps > 0 ? Style::Red : Style::Plain);
    Line more = line();
    more.add("       " + formatCount(_state.restarts, "restart", "restarts") + ", " +
             formatSeconds(_state.timerSeconds) + " without any device");
    return {counts.text(), more.text()};
}

std::vector<std::string> View::devices() const
{
    constexpr size_t otherColumns = 58; // what the others are given before the name grows
    size_t widest = nameLeast;
    for (const MonitorState::Device& device : _state.devices)
        widest = std::max(widest, displayWidth(singleLine(device.name)));
    const size_t room = _columns > otherColumns ? _columns - otherColumns : 0;
    const size_t nameWidth = std::clamp(std::min(widest, room), nameLeast, nameMost);
    std::vector<std::string> lines{line()
                                       .add(fitLeft("", 4) + fitLeft("DEVICE", nameWidth + 1) +
                                                fitLeft("STATE", 6) + fitRight("RATE", 9) +
                                                fitRight("CLOCK", 11) + fitRight("LOST", 7) + "  LEVEL",
                                            Style::Bold)
                                       .text()};
    for (const MonitorState::Device& device : _state.devices)
        lines.push_back(_device(device, nameWidth));
    if (_state.devices.empty())
        lines.push_back(text("    no device; waiting for one", Style::Dim));
    return lines;
}

std::string View::_device(const MonitorState::Device& device, size_t nameWidth) const
{
    constexpr size_t levelWidth = 9;
    const Style style = device.isThere ? Style::Plain : Style::Dim;
    Line row = line();
    row.add(fitLeft(device.direction, 4) + fitLeft(singleLine(device.name), nameWidth) + " ", style);
    row.add(fitLeft(device.state, 6), device.isThere ? Style::Green : Style::Red);
    row.add(fitRight(formatRate(device.sampleRate), 9) + fitRight(device.clock, 11), style);
    row.add(fitRight(std::to_string(device.lostFrames), 7), device.lostFrames > 0 ? Style::Red : style);
    const size_t used = 2 + levelWidth + 1;
    if (device.isThere && row.room() > used + 4) {
        const size_t width = row.room() - used;
        row.add("  ").addStyled(levelBar(device.level, width, _terminal), width);
        row.add(" " + fitRight(formatLevel(double{device.level}), levelWidth));
    } else if (device.isThere && row.room() >= 2 + levelWidth) {
        row.add("  " + fitRight(formatLevel(double{device.level}), levelWidth));
    }
    return row.text();
}

std::vector<std::string> View::others() const
{
    std::vector<std::string> lines;
    for (const MonitorState::OtherDevice& device : _state.others)
        lines.push_back(text("    " + fitLeft(singleLine(device.name), nameMost) +
                                 formatText(" %2u in %2u out %9s", device.inputs, device.outputs,
                                            formatRate(device.sampleRate).c_str()),
                             Style::Dim));
    if (!lines.empty())
        lines.insert(lines.begin(), line().add("    ALSO THERE", Style::Bold).text());
    return lines;
}

} // namespace

std::vector<std::string> monitorLines(const MonitorState& state, size_t columns, size_t rows,
                                      const Terminal& terminal)
{
    const View view(state, columns, terminal);
    std::vector<std::string> lines;
    const auto add = [&](const std::vector<std::string>& block, size_t reserved, bool isApart) {
        if (isApart && lines.size() + 1 + reserved < rows && !block.empty())
            lines.emplace_back();
        for (const std::string& line : block)
            if (lines.size() + reserved < rows)
                lines.push_back(line);
    };
    constexpr size_t keysRow = 1;
    add({view.title()}, 0, false);
    add({view.cycle()}, keysRow, false);
    add(view.counts(), keysRow, false);
    add(view.devices(), keysRow, true);
    add(view.others(), keysRow, true);
    // The latest news, as many as there is room for, at the foot.
    const size_t room = rows > lines.size() + keysRow + 1 ? rows - lines.size() - keysRow - 1 : 0;
    const size_t count = std::min(room, state.news.size());
    std::vector<std::string> news;
    for (size_t i = state.news.size() - count; i < state.news.size(); ++i)
        news.push_back(view.text(state.news[i], Style::Plain));
    add(news, keysRow, true);
    while (lines.size() + keysRow < rows)
        lines.emplace_back();
    add({view.keys()}, 0, false);
    return lines;
}
