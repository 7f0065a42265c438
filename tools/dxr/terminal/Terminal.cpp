#include "Terminal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr size_t defaultColumns = 80;
constexpr size_t columnsOfPipe = 10000; // as many as it takes: its reader looks for whole words
constexpr size_t fewestColumns = 20;

const char* codeOf(Style style)
{
    switch (style) {
    case Style::Bold:
        return "\x1B[1m";
    case Style::Dim:
        return "\x1B[2m";
    case Style::Red:
        return "\x1B[31m";
    case Style::Green:
        return "\x1B[32m";
    case Style::Yellow:
        return "\x1B[33m";
    case Style::Cyan:
        return "\x1B[36m";
    case Style::Plain:
        break;
    }
    return "";
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
        return std::max<size_t>(size.ws_col, fewestColumns);
    const char* wanted = std::getenv("COLUMNS");
    const long columns = wanted ? std::strtol(wanted, nullptr, 10) : 0;
    if (columns > 0 && columns < 10000)
        return std::max(static_cast<size_t>(columns), fewestColumns);
    return ::isatty(STDOUT_FILENO) == 1 ? defaultColumns : columnsOfPipe;
}

std::string Terminal::styled(std::string_view text, Style style) const
{
    if (!_hasColour || style == Style::Plain)
        return std::string(text);
    return codeOf(style) + std::string(text) + "\x1B[0m";
}
