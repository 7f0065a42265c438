#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Text from outside, made printable, and measured in the columns of a terminal.
// Threads: any. The character type locale must be a UTF-8 one; main() sets it.

/// `text` without anything that controls the terminal: control characters and bytes that are not UTF-8 are
/// shown as \x1B; a pile of combining marks is cut.
std::string singleLine(std::string_view text);
/// The columns of printable `text`: 2 for a wide character, 0 for a combining one.
size_t displayWidth(std::string_view text);
/// Printable `text`, cut to `width` columns, the last of which is an ellipsis when something is cut.
std::string clipToWidth(std::string_view text, size_t width);
/// Any text, printable and cut.
std::string shortText(std::string_view text, size_t width);
/// Printable `text`, cut or filled with spaces to `width` columns.
std::string fitLeft(std::string_view text, size_t width);
std::string fitRight(std::string_view text, size_t width);
/// Printable `text` in lines of up to `width` columns, broken at spaces if possible.
std::vector<std::string> wrapped(std::string_view text, size_t width);
/// The same, up to `width` columns, behind `label`, which takes `indent` columns. Further lines are indented.
std::vector<std::string> labelled(const std::string& label, size_t indent, std::string_view text,
                                  size_t width);
/// `text` in lower case, for comparisons.
std::string foldCase(std::string_view text);
