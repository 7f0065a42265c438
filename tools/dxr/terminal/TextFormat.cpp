#include "TextFormat.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

/// Formats a time with milliseconds.
std::string formatTime(std::chrono::system_clock::time_point when, const char* format,
                       std::tm* (*split)(const std::time_t*, std::tm*))
{
    using namespace std::chrono;
    const auto milliseconds = duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
    const std::time_t seconds = milliseconds / 1000;
    std::tm parts{};
    split(&seconds, &parts);
    char text[32];
    const size_t length = std::strftime(text, sizeof text, format, &parts);
    return std::string(text, length) + formatText(".%03d", static_cast<int>(milliseconds % 1000));
}

} // namespace

std::string formatText(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

std::string formatRate(double rate)
{
    if (!(rate > 0.0))
        return "-";
    return rate < 1000.0 ? formatText("%g Hz", rate) : formatText("%.7g kHz", rate / 1000.0);
}

std::string formatPercent(double scalar)
{
    return formatText("%.0f%%", scalar * 100.0);
}

std::string formatLevel(double amplitude)
{
    return amplitude > 0.0 ? formatText("%.1f dB", 20.0 * std::log10(amplitude)) : "-inf dB";
}

std::string formatSeconds(double seconds)
{
    if (seconds < 59.95)
        return formatText("%.1f s", seconds);
    const auto minutes = static_cast<long>((seconds + 0.05) / 60.0);
    return formatText("%ld:%04.1f", minutes, std::fabs(seconds - 60.0 * static_cast<double>(minutes)));
}

std::string formatNumber(uint64_t number)
{
    std::string text = std::to_string(number);
    for (size_t end = text.size(); end > 3; end -= 3)
        text.insert(end - 3, ",");
    return text;
}

std::string formatCount(uint64_t count, const std::string& singular, const char* plural)
{
    return formatNumber(count) + " " + (count == 1 ? singular : plural ? plural : singular + "s");
}

std::string formatLocalTime(std::chrono::system_clock::time_point when)
{
    return formatTime(when, "%H:%M:%S", localtime_r);
}

std::string formatUTC(std::chrono::system_clock::time_point when)
{
    return formatTime(when, "%Y-%m-%dT%H:%M:%S", gmtime_r) + "Z";
}
