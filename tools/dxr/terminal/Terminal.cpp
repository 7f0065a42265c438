#include "Terminal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr size_t minColumns = 20, defaultColumns = 80;
constexpr size_t pipeColumns = 10000; // programs read pipes, so that nothing may be cut

// Indexed by Style.
constexpr const char* codes[] = {"", "\x1B[1m", "\x1B[2m", "\x1B[31m", "\x1B[32m", "\x1B[33m", "\x1B[36m"};

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
