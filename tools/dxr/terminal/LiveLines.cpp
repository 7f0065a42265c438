#include "LiveLines.h"

#include <cstdio>

namespace {

void put(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

} // namespace

void LiveLines::draw(const std::vector<std::string>& lines)
{
    if (!_terminal.isLive())
        return;
    std::string frame = _drawn.empty() ? "\x1B[?25l" : _eraser();
    for (const std::string& line : lines)
        frame += line + "\n";
    put(frame);
    _drawn = lines;
}

void LiveLines::clear()
{
    if (_drawn.empty())
        return;
    put(_eraser() + "\x1B[?25h");
    _drawn.clear();
}

void LiveLines::printAbove(std::string_view line)
{
    std::string frame = _drawn.empty() ? std::string() : _eraser();
    frame.append(line).append("\n");
    for (const std::string& drawn : _drawn)
        frame += drawn + "\n";
    put(frame);
}

std::string LiveLines::_eraser() const
{
    return "\x1B[" + std::to_string(_drawn.size()) + "A\r\x1B[J";
}
