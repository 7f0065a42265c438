#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Text from outside, made fit for a terminal and measured in the columns it takes there.
// Threads: any. The program's character type locale must be a UTF-8 one (main() sees to it).

/// `text` without anything that could move the cursor, start a line or drive the terminal: such bytes, and
/// those that are no UTF-8, are shown as \x1B. Piles of combining marks on one letter are cut.
std::string singleLine(std::string_view text);
/// The terminal columns that printable `text` takes: 2 for a wide character, 0 for a combining one.
size_t displayWidth(std::string_view text);
/// The start of printable `text` that fits in `width` columns; at least one character of it, if there is one.
std::string_view fittingStart(std::string_view text, size_t width);
/// Printable `text`, cut to at most `width` columns, with an ellipsis in the last one when something is
/// missing.
std::string clipToWidth(std::string_view text, size_t width);
/// Printable `text`, clipped or filled with spaces to exactly `width` columns.
std::string fitLeft(std::string_view text, size_t width);
std::string fitRight(std::string_view text, size_t width);
/// Printable `text` in lines of at most `width` columns, broken at spaces where there are any.
std::vector<std::string> wrapped(std::string_view text, size_t width);
/// `text` with every letter in lower case, to compare what people typed.
std::string foldCase(std::string_view text);
