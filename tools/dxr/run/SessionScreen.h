#pragma once

#include "DeviceMeters.h"
#include "LiveLines.h"
#include "RunnerSession.h"

/// Shows a session: prints its messages and, at the end, its report. On a terminal, also shows meters and a
/// status line, redrawn in place.
/// Threads: one at a time.
class SessionScreen {
public:
    explicit SessionScreen(RunnerSession& session) : _session(session) {}

    /// Calls RunnerSession::wait() until the next picture is due, and prints the messages. Returns false if
    /// the user has asked to stop.
    bool wait();
    /// The messages of the last wait().
    const std::vector<std::string>& lastMessages() const { return _lastMessages; }
    /// The width of a status line, in columns.
    size_t width() const { return _terminal.columns() - 1; }
    void draw(DeviceMeters& meters, const std::string& status);
    /// Draws printable lines, cut to the width.
    void draw(std::vector<std::string> lines);
    /// Prints a line above the picture, where it stays.
    void print(const std::string& line) { _live.printAbove(line); }
    /// Removes the picture, and prints `first` and the session's report.
    void finish(const std::string& first);

private:
    RunnerSession& _session;
    std::vector<std::string> _lastMessages;
    const Terminal _terminal;
    LiveLines _live{_terminal};
};
