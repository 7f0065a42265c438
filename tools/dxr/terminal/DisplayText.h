#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Makes text from other programs and devices printable, and measures it in columns of a terminal.
// Threads: any. The locale's character type (LC_CTYPE) must be UTF-8; main() sets it.

/// Returns `text` as one printable line: control characters and bytes that are not UTF-8 are written as \x1B;
/// long sequences of combining marks are cut.
std::string singleLine(std::string_view text);
/// The width of printable `text` in columns: 2 for a wide character, 0 for a combining one.
size_t displayWidth(std::string_view text);
/// Returns printable `text` cut to `width` columns. If it is cut, it ends with an ellipsis.
std::string clipToWidth(std::string_view text, size_t width);
/// clipToWidth(singleLine(text), width), for any text.
std::string shortText(std::string_view text, size_t width);
/// Returns printable `text` cut to `width` columns, or filled with spaces and aligned to the left or right.
std::string fitLeft(std::string_view text, size_t width);
std::string fitRight(std::string_view text, size_t width);
/// Breaks printable `text` into lines of up to `width` columns, at spaces if possible.
std::vector<std::string> wrapped(std::string_view text, size_t width);
/// Like wrapped(), but the first line begins with `label`, which must be `indent` columns wide, and the other
/// lines are indented by as much.
std::vector<std::string> labelled(const std::string& label, size_t indent, std::string_view text,
                                  size_t width);
/// Returns `text` in lower case, for comparisons.
std::string foldCase(std::string_view text);
