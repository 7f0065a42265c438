#include "MonitorView.h"

#include "Table.h"

#include <algorithm>

namespace {

constexpr size_t minName = 12, maxName = 32;

/// A line of styled pieces, cut to the width. Functions that write several lines copy an empty one for each.
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
    const Terminal& terminal() const { return _terminal; }
    const std::string& text() const { return _text; }

private:
    size_t _room;
    const Terminal& _terminal;
    std::string _text;
};

std::string titleLine(const MonitorState& state, Line line)
{
    line.add("dxr monitor  ", Style::Bold).add(formatSeconds(state.seconds) + "  ", Style::Dim);
    line.add(state.context, Style::Cyan);
    if (state.frameCount > 0)
        line.add("  " + formatRate(state.sampleRate) + formatText(", blocks of %u frames", state.frameCount));
    return line.text();
}

std::string cycleLine(const MonitorState& state, Line line)
{
    constexpr size_t maxBar = 40, numbers = 40;
    constexpr double lateShare = 0.8; // share of a cycle above which the next cycles may be late
    line.add("cycle  ");
    if (state.cycleSeconds <= 0.0)
        return line.add("none yet", Style::Dim).text();
    const double share = state.usedSeconds / state.cycleSeconds;
    const Style style = share > 1.0 ? Style::Red : share > lateShare ? Style::Yellow : Style::Green;
    const size_t width = std::min(maxBar, line.room() - std::min(line.room(), numbers));
    const auto [used, rest] = shareBar(share, width, "█", "·");
    line.add(used, style).add(rest, Style::Dim);
    line.add(formatText(" %.2f of %.2f ms", state.usedSeconds * 1e3, state.cycleSeconds * 1e3), style);
    return line.add(formatText(", maximum %.2f", state.longestSeconds * 1e3)).text();
}

std::vector<std::string> countLines(const MonitorState& state, const Line& empty)
{
    const CycleStatistics& cycles = state.cycles;
    const double timerSeconds = static_cast<double>(cycles.timerFrames) / std::max(state.sampleRate, 1.0);
    Line counts = empty, more = empty;
    counts.add("       " + formatCount(cycles.cycles, "cycle") + ", ");
    counts.add(formatNumber(cycles.lateCycles) + " late", cycles.lateCycles > 0 ? Style::Red : Style::Plain);
    counts.add(", ").add(formatCount(state.lostFrames, "frame") + " lost in " +
                             formatCount(cycles.gaps, "gap"),
                         cycles.gaps > 0 ? Style::Red : Style::Plain);
    more.add("       " + formatCount(cycles.restarts, "restart") + ", " + formatSeconds(timerSeconds) +
             " without any device");
    return {counts.text(), more.text()};
}

std::vector<std::string> deviceLines(const MonitorState& state, Line empty)
{
    constexpr size_t gap = 2, minBar = 6;
    Table table({{"", 0, false, 9},
                 {"DEVICE", minName, false, 9},
                 {"STATE", 0, false, 3},
                 {"RATE", 0, true, 4},
                 {"CLOCK", 0, true, 2},
                 {"LOST", 0, true, 1},
                 {"LEVEL", 0, true, 8}});
    for (const MonitorState::Device& device : state.devices)
        table.add({device.direction, shortText(device.name, maxName), device.isConnected ? "runs" : "gone",
                   formatRate(device.sampleRate), device.clock, std::to_string(device.lostFrames),
                   device.isConnected ? formatLevel(double{device.level}) : ""},
                  !device.isConnected     ? Style::Dim
                  : device.lostFrames > 0 ? Style::Yellow
                                          : Style::Plain);
    const size_t columns = empty.room(), used = table.naturalWidth() + gap;
    std::vector<std::string> lines = table.lines(columns, empty.terminal());
    for (size_t i = 0; i < state.devices.size() && used + minBar <= columns; ++i)
        if (state.devices[i].isConnected)
            lines[i + 1] += "  " + levelBar(state.devices[i].level, columns - used, empty.terminal());
    if (state.devices.empty())
        lines.push_back(empty.add("    no device; waiting for one", Style::Dim).text());
    return lines;
}

std::vector<std::string> otherLines(const MonitorState& state, const Line& empty)
{
    std::vector<std::string> lines;
    if (!state.others.empty())
        lines.push_back(Line(empty).add("    OTHER DEVICES", Style::Bold).text());
    for (const DeviceReport& device : state.others)
        lines.push_back(
            Line(empty)
                .add("    " + fitLeft(device.shortName(), maxName) +
                         formatText(" %2u in %2u out %9s", device[HALDirection::Input].channelCount,
                                    device[HALDirection::Output].channelCount,
                                    formatRate(device.sampleRate).c_str()),
                     Style::Dim)
                .text());
    return lines;
}

} // namespace

std::vector<std::string> monitorLines(const MonitorState& state, size_t columns, size_t rows,
                                      const Terminal& terminal)
{
    constexpr size_t keysRow = 1;
    const Line empty(columns, terminal);
    std::vector<std::string> lines;
    const auto add = [&](const std::vector<std::string>& block, size_t reserved, bool isApart) {
        if (isApart && lines.size() + 1 + reserved < rows && !block.empty())
            lines.emplace_back();
        for (const std::string& line : block)
            if (lines.size() + reserved < rows)
                lines.push_back(line);
    };
    add({titleLine(state, empty)}, 0, false);
    add({cycleLine(state, empty)}, keysRow, false);
    add(countLines(state, empty), keysRow, false);
    add(deviceLines(state, empty), keysRow, true);
    add(otherLines(state, empty), keysRow, true);
    // The latest messages that fit.
    const size_t room = rows > lines.size() + keysRow + 1 ? rows - lines.size() - keysRow - 1 : 0;
    const size_t count = std::min(room, state.messages.size());
    std::vector<std::string> messages;
    for (size_t i = state.messages.size() - count; i < state.messages.size(); ++i)
        messages.push_back(Line(empty).add(singleLine(state.messages[i])).text());
    add(messages, keysRow, true);
    while (lines.size() + keysRow < rows)
        lines.emplace_back();
    const char* const keys =
        state.isHeard ? "q quits   l silences the outputs" : "q quits   l plays the inputs on the outputs";
    add({Line(empty).add(keys, Style::Dim).text()}, 0, false);
    return lines;
}
