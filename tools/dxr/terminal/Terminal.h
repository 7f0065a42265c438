#pragma once

#include "Text.h"

#include <utility>

enum class Style { Plain, Bold, Dim, Red, Green, Yellow, Cyan };

/// Standard output: a terminal, or a plain stream of lines. Below a terminal's output, lines can be redrawn
/// in place, without a cursor.
class Terminal {
public:
    Terminal();
    ~Terminal() { clear(); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Whether it is a terminal that understands escape codes.
    bool isLive() const noexcept { return _isLive; }
    /// Columns of a line: the terminal's, else $COLUMNS, else 80; practically unlimited in a pipe. Min 20.
    size_t columns() const;
    /// Returns `text` in a style; unchanged if the output has no colours or NO_COLOR is set.
    std::string styled(std::string_view text, Style style) const;

    /// Prints `label`, which must be `indent` columns wide, and beside it `text`, in lines.
    void printLabelled(const std::string& label, size_t indent, std::string_view text) const;

    /// Replaces the lines below the output; each must fit the width. Draws nothing if it is not a terminal.
    void draw(const std::vector<std::string>& lines);
    void clear();
    /// Prints a line above them, where it stays, and flushes standard output.
    void printAbove(std::string_view line);

private:
    std::string _eraser() const;

    bool _isLive;
    bool _hasColour;
    std::vector<std::string> _drawn;
};

/// A level, where 1.0 is full scale, as a bar from -60 to 0 dB: green, yellow from -12 dB, red from -3 dB.
std::string levelBar(float level, size_t width, const Terminal& terminal);
/// The filled and the empty part of a bar, together `width` columns wide; `share` is 0 to 1.
std::pair<std::string, std::string> shareBar(double share, size_t width, const char* full, const char* rest);
