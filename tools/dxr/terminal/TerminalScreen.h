#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Draws on the whole terminal and reads keys without waiting for Return. The terminal's previous contents
/// are restored at the end, however the process ends, except by SIGKILL.
/// Threads: at most one instance in a process, used by one thread.
class TerminalScreen {
public:
    struct Size {
        size_t columns, rows;
    };

    /// Throws ToolFailure if standard output is not a terminal that understands escape codes.
    TerminalScreen();
    ~TerminalScreen();
    TerminalScreen(const TerminalScreen&) = delete;
    TerminalScreen& operator=(const TerminalScreen&) = delete;

    /// The current size; 80 x 24 if unknown.
    Size size() const;
    /// Replaces the picture. The lines must fit the size.
    void draw(const std::vector<std::string>& lines);

    /// A descriptor that polls readable when a key was pressed; -1 if standard input is not a terminal.
    int keyboard() const noexcept { return _keyboard; }
    /// The bytes of the keys pressed since the last call. On Ctrl-Z, suspends the process during the call.
    std::string takeKeys();

private:
    void _enter();
    void _stopProcess();

    int _keyboard = -1;
};
