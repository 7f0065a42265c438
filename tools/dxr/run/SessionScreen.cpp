#include "SessionScreen.h"

#include "DisplayText.h"

#include <iostream>

bool SessionScreen::wait()
{
    constexpr int tickMilliseconds = 30;
    const bool goesOn = _session.wait(tickMilliseconds);
    _lastMessages = _session.takeMessages();
    for (const std::string& line : _lastMessages)
        _live.printAbove(line);
    return goesOn;
}

void SessionScreen::draw(DeviceMeters& meters, const std::string& status)
{
    if (!_terminal.isLive())
        return;
    std::vector<std::string> lines = meters.draw(width(), _terminal);
    lines.push_back(clipToWidth(status, width()));
    _live.draw(lines);
}

void SessionScreen::draw(std::vector<std::string> lines)
{
    for (std::string& line : lines)
        line = clipToWidth(line, width());
    _live.draw(lines);
}

void SessionScreen::finish(const std::string& first)
{
    for (const std::string& line : _session.takeMessages())
        _live.printAbove(line);
    _live.clear();
    std::cout << first << "\n";
    for (const std::string& line : _session.report())
        std::cout << line << "\n";
    std::cout.flush();
}
