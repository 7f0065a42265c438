#pragma once

#include "DeviceMeters.h"
#include "LiveLines.h"
#include "RunnerSession.h"

/// What a command shows of a session while it runs: messages as they come, and on a terminal meters and a line that are
/// redrawn in place; at the end its report. Threads: one.
class SessionScreen {
public:
    explicit SessionScreen(RunnerSession& session) : _session(session) {}

    /// RunnerSession::wait() for one picture's time; prints the messages. False when the user has asked to stop.
    bool wait();
    /// The messages that wait() has printed.
    const std::vector<std::string>& lastMessages() const { return _lastMessages; }
    /// The columns that a status line may take.
    size_t width() const { return _terminal.columns() - 1; }
    void draw(DeviceMeters& meters, const std::string& status);
    /// Prints a lasting line.
    void print(const std::string& line) { _live.printAbove(line); }
    /// Takes away what is drawn, and prints `first` and then the session's report.
    void finish(const std::string& first);

private:
    RunnerSession& _session;
    std::vector<std::string> _lastMessages;
    const Terminal _terminal;
    LiveLines _live{_terminal};
};
