#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// The whole terminal as a picture that is drawn again and again, and keys without Return. What was there before comes
/// back at the end, however the process ends, except by SIGKILL.
/// Threads: one instance in a process, used by one thread.
class TerminalScreen {
public:
    struct Size {
        size_t columns, rows;
    };

    /// Throws ToolFailure when standard output is no terminal that can do this.
    TerminalScreen();
    ~TerminalScreen();
    TerminalScreen(const TerminalScreen&) = delete;
    TerminalScreen& operator=(const TerminalScreen&) = delete;

    /// As it is now; 80 x 24 where the terminal does not say.
    Size size() const;
    /// Draws `lines` from the top, and nothing below. Each must fit the width, and all the height.
    void draw(const std::vector<std::string>& lines);

    /// Polls readable when there are keys; -1 when there is no keyboard.
    int keyboard() const noexcept { return _keyboard; }
    /// The keys that were pressed since the last call, as the terminal sends them. Ctrl-Z stops the process here, and
    /// what is drawn next is drawn anew.
    std::string takeKeys();

private:
    void _enter();
    void _leave();
    void _stopProcess();

    int _keyboard = -1;
};
