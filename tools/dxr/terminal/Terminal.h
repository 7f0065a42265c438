#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// How a piece of text looks on a terminal.
enum class Style { Plain, Bold, Dim, Red, Green, Yellow, Cyan };

/// Standard output: a terminal that can be coloured and redrawn, or a plain stream of lines.
/// Threads: one.
class Terminal {
public:
    Terminal();

    /// Whether standard output is a terminal that understands escape codes; nothing is redrawn otherwise.
    bool isLive() const noexcept { return _isLive; }
    /// The columns of a line now: the terminal's, or those of $COLUMNS, or 80; in a pipe as many as it
    /// takes. At least 20.
    size_t columns() const;
    /// `text` in a style, where colours are shown and wanted (NO_COLOR unset); else as it is.
    std::string styled(std::string_view text, Style style) const;

private:
    bool _isLive;
    bool _hasColour;
};
