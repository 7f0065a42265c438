#pragma once

#include "DeviceMeters.h"
#include "LiveLines.h"
#include "RunnerSession.h"

/// Shows a session: messages; on a terminal also meters and a status line, redrawn in place; at the end the
/// report.
/// Threads: one.
class SessionScreen {
public:
    explicit SessionScreen(RunnerSession& session) : _session(session) {}

    /// RunnerSession::wait() until the next picture; prints the messages. False when the user has asked to
    /// stop.
    bool wait();
    /// The messages of the last wait().
    const std::vector<std::string>& lastMessages() const { return _lastMessages; }
    /// Columns for a status line.
    size_t width() const { return _terminal.columns() - 1; }
    void draw(DeviceMeters& meters, const std::string& status);
    /// Printable lines, which are cut to the width.
    void draw(std::vector<std::string> lines);
    /// Prints a lasting line.
    void print(const std::string& line) { _live.printAbove(line); }
    /// Removes the picture, and prints `first` and the session's report.
    void finish(const std::string& first);

private:
    RunnerSession& _session;
    std::vector<std::string> _lastMessages;
    const Terminal _terminal;
    LiveLines _live{_terminal};
};
