#include "DeviceMeters.h"

#include <algorithm>
#include <cmath>

constexpr float fallDecibelsPerSecond = 24.0F;
constexpr size_t maxBars = 8;     // for each device
constexpr size_t maxLines = 16;   // a small terminal has 24
constexpr size_t labelWidth = 19; // a name and a number

void DeviceMeters::add(const char* direction, const std::vector<DeviceSelection>& selections)
{
    constexpr size_t nameWidth = 16;
    for (const DeviceSelection& selection : selections) {
        const size_t channels = selection.channels.size();
        _meters.push_back({std::make_unique<std::atomic<float>[]>(channels), std::vector<float>(channels),
                           selections.size() == 1
                               ? direction
                               : fitLeft(std::string(direction) + " " + selection.shortName(), nameWidth)});
    }
}

void DeviceMeters::note(size_t meter, const DXRBuffer& buffer) noexcept
{
    const size_t channels = buffer.channelCount(), end = channels * buffer.frameCount();
    for (size_t channel = 0; channel < std::min(channels, _meters[meter].levels.size()); ++channel) {
        std::atomic<float>& highest = _meters[meter].peaks[channel];
        float peak = 0.0F;
        for (size_t k = channel; k < end; k += channels)
            peak = std::max(peak, std::fabs(buffer.samples()[k]));
        float before = highest.load(std::memory_order_relaxed);
        while (peak > before && !highest.compare_exchange_weak(before, peak, std::memory_order_relaxed)) {
        }
    }
}

void DeviceMeters::update()
{
    constexpr float silence = 1e-5F;
    const auto now = std::chrono::steady_clock::now();
    const float seconds = std::min(1.0F, std::chrono::duration<float>(now - _updated).count());
    const float fall = std::pow(10.0F, -fallDecibelsPerSecond * seconds / 20.0F);
    _updated = now;
    for (Meter& meter : _meters)
        for (size_t channel = 0; channel < meter.levels.size(); ++channel) {
            const float peak = meter.peaks[channel].exchange(0.0F, std::memory_order_relaxed);
            const float level = std::max(peak, meter.levels[channel] * fall);
            meter.levels[channel] = level < silence ? 0.0F : level;
        }
}

std::vector<std::string> DeviceMeters::draw(size_t width, const Terminal& terminal)
{
    update();
    size_t count = 0;
    for (const Meter& meter : _meters)
        count += meter.levels.size() > maxBars ? 1 : meter.levels.size();
    std::vector<std::string> lines;
    for (size_t i = 0; i < _meters.size() && lines.size() < maxLines; ++i) {
        const Meter& meter = _meters[i];
        const bool isLoudest = count > maxLines || meter.levels.size() > maxBars;
        const std::vector<float> levels = isLoudest ? std::vector{level(i)} : meter.levels;
        for (size_t bar = 0; bar < levels.size(); ++bar) {
            const std::string number = levels.size() == 1 ? "" : formatText(" %zu", bar + 1);
            lines.push_back(_bar(meter.label + number, levels[bar], width, terminal));
        }
    }
    if (_meters.size() > maxLines)
        lines.back() = "…";
    return lines;
}

std::string DeviceMeters::_bar(const std::string& label, float level, size_t width, const Terminal& terminal)
{
    constexpr size_t minLabel = 7; // "out 8" and two spaces
    const std::string start = fitLeft(label, label.size() < minLabel ? minLabel : labelWidth);
    const std::string number = fitRight(formatLevel(double{level}), 9);
    const size_t used = displayWidth(start) + number.size() + 1;
    return start + levelBar(level, width > used ? width - used : 0, terminal) + " " + number;
}
