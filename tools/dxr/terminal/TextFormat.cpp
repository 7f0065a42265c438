#include "TextFormat.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>

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

std::string formatCount(uint64_t count, const char* singular, const char* plural)
{
    const std::string digits = std::to_string(count);
    std::string text;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0)
            text += ',';
        text += digits[i];
    }
    return text.append(" ").append(count == 1 ? singular : plural);
}
