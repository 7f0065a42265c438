#pragma once

#include "DeviceMeters.h"
#include "RunnerSession.h"
#include "Terminal.h"

#include <iostream>

/// Prints a session's messages and report and, on a terminal, shows meters and a status line in place.
class SessionScreen {
public:
    explicit SessionScreen(RunnerSession& session) : _session(session) {}

    /// RunnerSession::wait() until the next picture is due; prints the messages.
    bool wait()
    {
        constexpr int tickMilliseconds = 30;
        const bool goesOn = _session.wait(tickMilliseconds);
        _lastMessages = _session.takeMessages();
        for (const std::string& line : _lastMessages)
            print(line);
        return goesOn;
    }
    const std::vector<std::string>& lastMessages() const { return _lastMessages; }
    /// The width of a status line, in columns.
    size_t width() const { return _terminal.columns() - 1; }
    void draw(DeviceMeters& meters, const std::string& status)
    {
        if (!_terminal.isLive())
            return;
        std::vector<std::string> lines = meters.draw(width(), _terminal);
        lines.push_back(status);
        draw(std::move(lines));
    }
    /// Draws printable lines, cut to the width.
    void draw(std::vector<std::string> lines)
    {
        for (std::string& line : lines)
            line = clipToWidth(line, width());
        _terminal.draw(lines);
    }
    /// Prints a line above the picture, where it stays.
    void print(const std::string& line) { _terminal.printAbove(line); }
    /// Removes the picture, and prints `first` and the session's report.
    void finish(const std::string& first)
    {
        for (const std::string& line : _session.takeMessages())
            print(line);
        _terminal.clear();
        std::cout << first << "\n" << joined(_session.report(), "\n") << std::endl;
    }

private:
    RunnerSession& _session;
    std::vector<std::string> _lastMessages;
    Terminal _terminal;
};
