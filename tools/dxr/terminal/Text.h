#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Text for the user. Threads: any.

/// Ends the command with one printable line for the user and `exitStatus`.
class ToolFailure : public std::runtime_error {
public:
    explicit ToolFailure(const std::string& line) : std::runtime_error(line) {}

    static constexpr int exitStatus = 1;
    static constexpr int usageExitStatus = 2; ///< of a wrong command line
};

// ---- Numbers, times and lists

/// Like printf().
std::string formatText(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// Formats a rate in Hz as "44.1 kHz"; 0 as "-".
std::string formatRate(double rate);
/// Formats 0 to 1 as "70%".
std::string formatPercent(double scalar);
/// An amplitude as decibels below full scale, "-6.0 dB"; "-inf dB" for silence.
std::string formatLevel(double amplitude);
/// "0.0 s"; from one minute, "1:02.5".
std::string formatSeconds(double seconds);
/// formatSeconds() of frames at a rate in Hz.
std::string formatFrames(uint64_t frameCount, double sampleRate);
/// "1,234".
std::string formatNumber(uint64_t number);
/// "1 frame", "2 frames".
std::string formatCount(uint64_t count, const std::string& singular);

/// "12:34:56.789", local time.
std::string formatLocalTime(std::chrono::system_clock::time_point when);
/// "2026-01-31T12:34:56.789Z".
std::string formatUTC(std::chrono::system_clock::time_point when);

/// Joins the texts of `items` with `separator` between them.
template <class Items, class Text = std::identity>
std::string joined(const Items& items, const char* separator, Text text = {})
{
    std::string line;
    const char* before = "";
    for (const auto& item : items) {
        line += before + std::string(std::invoke(text, item));
        before = separator;
    }
    return line;
}

// ---- Text from other programs and devices. Widths are columns of a terminal. The locale's character type
// (LC_CTYPE) must be UTF-8; main() sets it.

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
/// Returns `text` in lower case, for comparisons.
std::string foldCase(std::string_view text);
