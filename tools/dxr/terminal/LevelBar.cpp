#include "LevelBar.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr float floorDecibels = -60.0F;
constexpr float yellowFromDecibels = -12.0F;
constexpr float redFromDecibels = -3.0F;
constexpr const char* eighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};

/// Where a level stands on a bar, 0 to 1.
double positionOf(float decibels)
{
    return std::clamp(1.0 - double{decibels} / double{floorDecibels}, 0.0, 1.0);
}

float decibelsOf(float level)
{
    return level > 0.0F ? 20.0F * std::log10(level) : -1000.0F;
}

} // namespace

std::string levelBar(float level, size_t width, const Terminal& terminal)
{
    const auto full = static_cast<size_t>(std::lround(positionOf(decibelsOf(level)) * double(width) * 8.0));
    const auto columnOf = [&](float decibels) {
        return static_cast<size_t>(positionOf(decibels) * static_cast<double>(width));
    };
    const std::pair<size_t, Style> zones[] = {{columnOf(yellowFromDecibels), Style::Green},
                                              {columnOf(redFromDecibels), Style::Yellow},
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
    std::string rest;
    for (; column < width; ++column)
        rest += "·";
    return bar + terminal.styled(rest, Style::Dim);
}
