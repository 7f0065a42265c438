#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

// Numbers, times and lists as text.
// Threads: any.

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
/// "1,234".
std::string formatNumber(uint64_t number);
/// "1 frame", "2 frames"; `plural` is by default `singular` with an s.
std::string formatCount(uint64_t count, const std::string& singular, const char* plural = nullptr);

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
