#pragma once

#include "Terminal.h"

#include <string>
#include <string_view>
#include <vector>

/// Lines below a terminal's output that are redrawn in place. The cursor is hidden while they are shown. If
/// standard output is not a terminal, nothing is drawn.
/// Threads: one at a time.
class LiveLines {
public:
    explicit LiveLines(const Terminal& terminal) : _terminal(terminal) {}
    ~LiveLines() { clear(); }
    LiveLines(const LiveLines&) = delete;
    LiveLines& operator=(const LiveLines&) = delete;

    /// Replaces the lines; each must fit the terminal's width.
    void draw(const std::vector<std::string>& lines);
    void clear();
    /// Prints a line above them, where it stays, and flushes standard output.
    void printAbove(std::string_view line);

private:
    std::string _eraser() const;

    const Terminal& _terminal;
    std::vector<std::string> _drawn;
};
