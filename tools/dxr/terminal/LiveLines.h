#pragma once

#include "Terminal.h"

#include <string>
#include <string_view>
#include <vector>

/// The lines at the foot of a terminal that are redrawn in place: meters and progress. On a stream that is no
/// terminal it draws nothing. The cursor is hidden while something is drawn, and comes back at the end,
/// also after a failure. Threads: one.
class LiveLines {
public:
    explicit LiveLines(const Terminal& terminal) : _terminal(terminal) {}
    ~LiveLines() { clear(); }
    LiveLines(const LiveLines&) = delete;
    LiveLines& operator=(const LiveLines&) = delete;

    /// Draws `lines` over what was drawn before; each must fit the terminal's width.
    void draw(const std::vector<std::string>& lines);
    /// Takes what was drawn away.
    void clear();
    /// Prints a lasting line above what is drawn, and flushes it.
    void printAbove(std::string_view line);

private:
    std::string _eraser() const;

    const Terminal& _terminal;
    std::vector<std::string> _drawn;
};
