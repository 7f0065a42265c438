#include "Text.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cwctype>
#include <dxr/LogSink.h>

namespace {

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

constexpr const char* ellipsis = "\xE2\x80\xA6";
constexpr size_t marksPerLetter = 8; // combining marks kept for each letter; enough for any script

struct Character {
    std::string_view bytes;
    wchar_t code = 0;
    size_t width = 0; // columns
};

std::vector<Character> charactersOf(std::string_view text)
{
    std::vector<Character> characters;
    while (!text.empty()) {
        auto code = static_cast<wchar_t>(WEOF); // of a byte that is not UTF-8
        std::mbstate_t state{};
        const size_t found = std::mbrtowc(&code, text.data(), text.size(), &state);
        const size_t length = found > text.size() ? 1 : std::max<size_t>(found, 1);
        const int width = ::wcwidth(code);
        characters.push_back({text.substr(0, length), code, width < 0 ? 1 : static_cast<size_t>(width)});
        text.remove_prefix(length);
    }
    return characters;
}

/// The longest start of `text` that fits in `width` columns; at least one character.
std::string_view fittingStart(std::string_view text, size_t width)
{
    size_t used = 0, bytes = 0;
    for (const Character& character : charactersOf(text)) {
        used += character.width;
        if (used > width && bytes > 0)
            break;
        bytes += character.bytes.size();
    }
    return text.substr(0, bytes);
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

std::string formatFrames(uint64_t frameCount, double sampleRate)
{
    return formatSeconds(static_cast<double>(frameCount) / sampleRate);
}

std::string formatNumber(uint64_t number)
{
    std::string text = std::to_string(number);
    for (size_t end = text.size(); end > 3; end -= 3)
        text.insert(end - 3, ",");
    return text;
}

std::string formatCount(uint64_t count, const std::string& singular)
{
    return formatNumber(count) + " " + (count == 1 ? singular : singular + "s");
}

std::string formatLocalTime(std::chrono::system_clock::time_point when)
{
    return formatTime(when, "%H:%M:%S", localtime_r);
}

std::string formatUTC(std::chrono::system_clock::time_point when)
{
    return formatTime(when, "%Y-%m-%dT%H:%M:%S", gmtime_r) + "Z";
}

std::string singleLine(std::string_view text)
{
    std::string line;
    size_t marks = 0;
    const std::string printable = dxr::printableText(text);
    for (const Character& character : charactersOf(printable)) {
        marks = character.width == 0 ? marks + 1 : 0;
        // U+2028 and U+2029, the line and paragraph separators, start a new line on some terminals.
        if (character.code == L'\n' || character.code == L'\t')
            line += formatText("\\x%02X", static_cast<unsigned>(character.code));
        else if (character.code == 0x2028 || character.code == 0x2029)
            line += ' ';
        else if (marks <= marksPerLetter)
            line += character.bytes;
    }
    return line;
}

size_t displayWidth(std::string_view text)
{
    size_t width = 0;
    for (const Character& character : charactersOf(text))
        width += character.width;
    return width;
}

std::string clipToWidth(std::string_view text, size_t width)
{
    if (displayWidth(text) <= width)
        return std::string(text);
    if (width == 0)
        return {};
    const std::string_view start = width == 1 ? std::string_view() : fittingStart(text, width - 1);
    return std::string(displayWidth(start) < width ? start : std::string_view()) +
           ellipsis; // empty start: a single wide character does not fit beside the ellipsis
}

std::string shortText(std::string_view text, size_t width)
{
    return clipToWidth(singleLine(text), width);
}

std::string fitLeft(std::string_view text, size_t width)
{
    const std::string clipped = clipToWidth(text, width);
    return clipped + std::string(width - std::min(width, displayWidth(clipped)), ' ');
}

std::string fitRight(std::string_view text, size_t width)
{
    const std::string clipped = clipToWidth(text, width);
    return std::string(width - std::min(width, displayWidth(clipped)), ' ') + clipped;
}

std::vector<std::string> wrapped(std::string_view text, size_t width)
{
    std::vector<std::string> lines;
    while (!text.empty()) {
        std::string_view line = fittingStart(text, width);
        const bool isCut = line.size() < text.size() && text[line.size()] != ' ';
        if (const size_t space = line.rfind(' '); isCut && space != std::string_view::npos)
            line = line.substr(0, space);
        text.remove_prefix(line.size());
        lines.emplace_back(line.substr(0, line.find_last_not_of(' ') + 1));
        text.remove_prefix(std::min(text.size(), text.find_first_not_of(' ')));
    }
    return lines;
}

std::string foldCase(std::string_view text)
{
    std::string folded;
    for (const Character& character : charactersOf(text)) {
        const auto lower = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(character.code)));
        std::mbstate_t state{};
        char bytes[16];
        const size_t count = std::wcrtomb(bytes, lower, &state);
        if (count == static_cast<size_t>(-1))
            folded += character.bytes;
        else
            folded.append(bytes, count);
    }
    return folded;
}
