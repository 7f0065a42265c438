#include "LevelBar.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr float minDecibels = -60.0F, yellowDecibels = -12.0F, redDecibels = -3.0F;
constexpr const char* eighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};

double shareOf(float decibels)
{
    return std::clamp(1.0 - double{decibels} / double{minDecibels}, 0.0, 1.0);
}

std::string repeated(const char* text, size_t count)
{
    std::string all;
    for (size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

} // namespace

std::string levelBar(float level, size_t width, const Terminal& terminal)
{
    const float decibels = level > 0.0F ? 20.0F * std::log10(level) : minDecibels;
    const auto columns = static_cast<double>(width);
    const auto full =
        static_cast<size_t>(std::lround(shareOf(decibels) * columns * 8.0)); // eighths of a column
    const std::pair<size_t, Style> zones[] = {
        {static_cast<size_t>(shareOf(yellowDecibels) * columns), Style::Green},
        {static_cast<size_t>(shareOf(redDecibels) * columns), Style::Yellow},
        {width, Style::Red}};
    std::string bar;
    size_t column = 0;
    for (const auto& [end, style] : zones) {
        std::string part;
        for (; column < end && column * 8 < full; ++column)
            part += full - column * 8 >= 8 ? "█" : eighths[full - column * 8];
        if (!part.empty())
            bar += terminal.styled(part, style);
    }
    return bar + terminal.styled(repeated("·", width - column), Style::Dim);
}

std::pair<std::string, std::string> shareBar(double share, size_t width, const char* full, const char* rest)
{
    const auto count =
        static_cast<size_t>(std::lround(std::clamp(share, 0.0, 1.0) * static_cast<double>(width)));
    return {repeated(full, count), repeated(rest, width - count)};
}
