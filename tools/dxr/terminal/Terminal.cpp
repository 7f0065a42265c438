#include "Terminal.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t minColumns = 20, defaultColumns = 80;
constexpr size_t pipeColumns = 10000; // programs read pipes, so that nothing may be cut

// Indexed by Style.
constexpr const char* codes[] = {"", "\x1B[1m", "\x1B[2m", "\x1B[31m", "\x1B[32m", "\x1B[33m", "\x1B[36m"};

constexpr float minDecibels = -60.0F, yellowDecibels = -12.0F, redDecibels = -3.0F;
constexpr const char* eighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};

double shareOf(float decibels)
{
    return std::clamp(1.0 - double{decibels} / double{minDecibels}, 0.0, 1.0);
}

std::string repeated(const char* text, size_t count)
{
    std::string all;
    for (size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

} // namespace

Terminal::Terminal()
{
    const char* kind = std::getenv("TERM");
    _isLive = ::isatty(STDOUT_FILENO) == 1 && kind && std::strcmp(kind, "dumb") != 0;
    const char* noColour = std::getenv("NO_COLOR");
    _hasColour = _isLive && !(noColour && *noColour);
}

size_t Terminal::columns() const
{
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return std::max<size_t>(size.ws_col, minColumns);
    const char* wanted = std::getenv("COLUMNS");
    const long columns = wanted ? std::strtol(wanted, nullptr, 10) : 0;
    if (columns > 0 && columns < 10'000)
        return std::max(static_cast<size_t>(columns), minColumns);
    return ::isatty(STDOUT_FILENO) == 1 ? defaultColumns : pipeColumns;
}

std::string Terminal::styled(std::string_view text, Style style) const
{
    if (!_hasColour || style == Style::Plain)
        return std::string(text);
    return codes[static_cast<size_t>(style)] + std::string(text) + "\x1B[0m";
}

void Terminal::printLabelled(const std::string& label, size_t indent, std::string_view text) const
{
    std::string start = label;
    for (const std::string& line : wrapped(text, std::max(columns(), indent + minColumns) - indent))
        std::cout << std::exchange(start, std::string(indent, ' ')) << line << "\n";
}

void Terminal::draw(const std::vector<std::string>& lines)
{
    if (!_isLive)
        return;
    std::cout << (_drawn.empty() ? "\x1B[?25l" : _eraser()) << joined(lines, "\n") << std::endl;
    _drawn = lines;
}

void Terminal::clear()
{
    if (_drawn.empty())
        return;
    std::cout << _eraser() << "\x1B[?25h" << std::flush;
    _drawn.clear();
}

void Terminal::printAbove(std::string_view line)
{
    std::cout << (_drawn.empty() ? "" : _eraser()) << line << "\n";
    for (const std::string& drawn : _drawn)
        std::cout << drawn << "\n";
    std::cout << std::flush;
}

std::string Terminal::_eraser() const
{
    return "\x1B[" + std::to_string(_drawn.size()) + "A\r\x1B[J";
}

std::string levelBar(float level, size_t width, const Terminal& terminal)
{
    const float decibels = level > 0.0F ? 20.0F * std::log10(level) : minDecibels;
    const auto columns = static_cast<double>(width);
    const auto full =
        static_cast<size_t>(std::lround(shareOf(decibels) * columns * 8.0)); // eighths of a column
    const std::pair<size_t, Style> zones[] = {
        {static_cast<size_t>(shareOf(yellowDecibels) * columns), Style::Green},
        {static_cast<size_t>(shareOf(redDecibels) * columns), Style::Yellow},
        {width, Style::Red}};
    std::string bar;
    size_t column = 0;
    for (const auto& [end, style] : zones) {
        std::string part;
        for (; column < end && column * 8 < full; ++column)
            part += full - column * 8 >= 8 ? "█" : eighths[full - column * 8];
        if (!part.empty())
            bar += terminal.styled(part, style);
    }
    return bar + terminal.styled(repeated("·", width - column), Style::Dim);
}

std::pair<std::string, std::string> shareBar(double share, size_t width, const char* full, const char* rest)
{
    const auto count =
        static_cast<size_t>(std::lround(std::clamp(share, 0.0, 1.0) * static_cast<double>(width)));
    return {repeated(full, count), repeated(rest, width - count)};
}
