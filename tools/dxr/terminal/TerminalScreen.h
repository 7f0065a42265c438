#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// The whole terminal as a picture, and keys without Return. The previous contents return at the end, however
/// the process ends, except by SIGKILL.
/// Threads: one instance in a process, used by one thread.
class TerminalScreen {
public:
    struct Size {
        size_t columns, rows;
    };

    /// Throws ToolFailure when standard output is no such terminal.
    TerminalScreen();
    ~TerminalScreen();
    TerminalScreen(const TerminalScreen&) = delete;
    TerminalScreen& operator=(const TerminalScreen&) = delete;

    /// The present size; 80 x 24 if unknown.
    Size size() const;
    /// Replaces the picture. The lines must fit the size.
    void draw(const std::vector<std::string>& lines);

    /// Polls readable when there are keys; -1 when there is no keyboard.
    int keyboard() const noexcept { return _keyboard; }
    /// The keys since the last call, as the terminal sends them. Ctrl-Z stops the process in this call.
    std::string takeKeys();

private:
    void _enter();
    void _stopProcess();

    int _keyboard = -1;
};
