#pragma once

#include "Terminal.h"

#include <string>
#include <string_view>
#include <vector>

/// Lines at the foot of a terminal that are redrawn in place. Elsewhere nothing is drawn. The cursor is
/// hidden meanwhile.
/// Threads: one.
class LiveLines {
public:
    explicit LiveLines(const Terminal& terminal) : _terminal(terminal) {}
    ~LiveLines() { clear(); }
    LiveLines(const LiveLines&) = delete;
    LiveLines& operator=(const LiveLines&) = delete;

    /// Replaces the lines; each must fit the terminal's width.
    void draw(const std::vector<std::string>& lines);
    void clear();
    /// Prints a lasting line above them, and flushes it.
    void printAbove(std::string_view line);

private:
    std::string _eraser() const;

    const Terminal& _terminal;
    std::vector<std::string> _drawn;
};
