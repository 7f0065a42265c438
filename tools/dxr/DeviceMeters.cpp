#include "DeviceMeters.h"

#include "DisplayText.h"

#include <algorithm>
#include <iterator>

size_t DeviceMeters::add(const char* direction, const std::vector<DeviceSelection>& selections)
{
    constexpr size_t nameWidth = 16;
    const size_t first = _meters.size();
    for (const DeviceSelection& selection : selections) {
        _meters.emplace_back(static_cast<uint32_t>(selection.channels.size()));
        _labels.push_back(selections.size() == 1
                              ? direction
                              : fitLeft(std::string(direction) + " " + selection.shortName(), nameWidth));
    }
    return first;
}

std::vector<std::string> DeviceMeters::draw(size_t width, const Terminal& terminal)
{
    constexpr size_t mostLines = 16; // a small terminal has 24, and some are for other things
    size_t count = 0;
    for (const LevelMeter& meter : _meters)
        count += meter.lineCount(LevelMeter::Detail::Channels);
    const auto detail = count > mostLines ? LevelMeter::Detail::Loudest : LevelMeter::Detail::Channels;
    std::vector<std::string> lines;
    for (size_t i = 0; i < _meters.size() && lines.size() < mostLines; ++i)
        std::ranges::move(_meters[i].draw(_labels[i], _meters[i].takePeaks(), width, terminal, detail),
                          std::back_inserter(lines));
    if (_meters.size() > mostLines)
        lines.back() = "…";
    return lines;
}
