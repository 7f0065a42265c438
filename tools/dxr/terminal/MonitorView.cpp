#include "MonitorView.h"

#include "DisplayText.h"
#include "LevelBar.h"
#include "Table.h"
#include "TextFormat.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr size_t minName = 12, maxName = 32;
constexpr double lateShare = 0.8; // of a cycle: above this, the next may be late

/// A line of styled pieces, cut to the width.
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
    constexpr size_t maxBar = 40, numbers = 40;
    Line cycle = line();
    cycle.add("cycle  ");
    if (_state.cycleSeconds <= 0.0)
        return cycle.add("none yet", Style::Dim).text();
    const double share = _state.usedSeconds / _state.cycleSeconds;
    const Style style = share > 1.0 ? Style::Red : share > lateShare ? Style::Yellow : Style::Green;
    const size_t width = std::min(maxBar, cycle.room() - std::min(cycle.room(), numbers));
    const auto [used, rest] = shareBar(share, width, "█", "·");
    cycle.add(used, style).add(rest, Style::Dim);
    cycle.add(formatText(" %.2f of %.2f ms", _state.usedSeconds * 1e3, _state.cycleSeconds * 1e3), style);
    return cycle.add(formatText(", maximum %.2f", _state.longestSeconds * 1e3)).text();
}

std::vector<std::string> View::counts() const
{
    Line counts = line();
    counts.add("       " + formatCount(_state.cycles, "cycle") + ", ");
    counts.add(formatNumber(_state.lateCycles) + " late", _state.lateCycles > 0 ? Style::Red : Style::Plain);
    counts.add(", ").add(formatCount(_state.lostFrames, "frame") + " lost in " +
                             formatCount(_state.gaps, "gap"),
                         _state.gaps > 0 ? Style::Red : Style::Plain);
    Line more = line();
    more.add("       " + formatCount(_state.restarts, "restart") + ", " + formatSeconds(_state.timerSeconds) +
             " without any device");
    return {counts.text(), more.text()};
}

std::vector<std::string> View::devices() const
{
    constexpr size_t gap = 2, minBar = 6;
    Table table({{"", 0, false, 9},
                 {"DEVICE", minName, false, 9},
                 {"STATE", 0, false, 3},
                 {"RATE", 0, true, 4},
                 {"CLOCK", 0, true, 2},
                 {"LOST", 0, true, 1},
                 {"LEVEL", 0, true, 8}});
    for (const MonitorState::Device& device : _state.devices)
        table.add({{device.direction, shortText(device.name, maxName), device.isConnected ? "runs" : "gone",
                    formatRate(device.sampleRate), device.clock, std::to_string(device.lostFrames),
                    device.isConnected ? formatLevel(double{device.level}) : ""},
                   "",
                   !device.isConnected     ? Style::Dim
                   : device.lostFrames > 0 ? Style::Yellow
                                           : Style::Plain});
    std::vector<std::string> lines = table.lines(_columns, _terminal);
    const size_t used = table.naturalWidth() + gap;
    for (size_t i = 0; i < _state.devices.size() && used + minBar <= _columns; ++i)
        if (_state.devices[i].isConnected)
            lines[i + 1] += "  " + levelBar(_state.devices[i].level, _columns - used, _terminal);
    if (_state.devices.empty())
        lines.push_back(text("    no device; waiting for one", Style::Dim));
    return lines;
}

std::vector<std::string> View::others() const
{
    std::vector<std::string> lines;
    for (const MonitorState::OtherDevice& device : _state.others)
        lines.push_back(text("    " + fitLeft(singleLine(device.name), maxName) +
                                 formatText(" %2u in %2u out %9s", device.inputs, device.outputs,
                                            formatRate(device.sampleRate).c_str()),
                             Style::Dim));
    if (!lines.empty())
        lines.insert(lines.begin(), line().add("    OTHER DEVICES", Style::Bold).text());
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
    // The latest messages that fit.
    const size_t room = rows > lines.size() + keysRow + 1 ? rows - lines.size() - keysRow - 1 : 0;
    const size_t count = std::min(room, state.messages.size());
    std::vector<std::string> messages;
    for (size_t i = state.messages.size() - count; i < state.messages.size(); ++i)
        messages.push_back(view.text(state.messages[i], Style::Plain));
    add(messages, keysRow, true);
    while (lines.size() + keysRow < rows)
        lines.emplace_back();
    add({view.keys()}, 0, false);
    return lines;
}
