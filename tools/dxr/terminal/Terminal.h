#pragma once

#include <cstddef>
#include <string>
#include <string_view>

enum class Style { Plain, Bold, Dim, Red, Green, Yellow, Cyan };

/// Standard output: a terminal, or a plain stream of lines.
/// Threads: one at a time.
class Terminal {
public:
    Terminal();

    /// Whether it is a terminal that understands escape codes.
    bool isLive() const noexcept { return _isLive; }
    /// The columns of a line: the terminal's, else $COLUMNS, else 80; practically unlimited in a pipe. At
    /// least 20.
    size_t columns() const;
    /// Returns `text` in a style; unchanged if the output has no colours or NO_COLOR is set.
    std::string styled(std::string_view text, Style style) const;

private:
    bool _isLive;
    bool _hasColour;
};
