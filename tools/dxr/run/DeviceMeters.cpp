#include "DeviceMeters.h"

#include "DisplayText.h"
#include "LevelBar.h"
#include "TextFormat.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr float fallDecibelsPerSecond = 24.0F;
constexpr uint32_t maxBars = 8;   // of a device
constexpr size_t maxLines = 16;   // of the 24 of a small terminal
constexpr size_t labelWidth = 19; // of a name and a number

} // namespace

DeviceMeters::Meter::Meter(uint32_t channels)
    : channelCount(channels), peaks(std::make_unique<std::atomic<float>[]>(channels)),
      shown(std::min(channels, maxBars), 0.0F)
{}

void DeviceMeters::add(const char* direction, const std::vector<DeviceSelection>& selections)
{
    constexpr size_t nameWidth = 16;
    for (const DeviceSelection& selection : selections) {
        Meter& meter = _meters.emplace_back(static_cast<uint32_t>(selection.channels.size()));
        meter.label = selections.size() == 1
                          ? direction
                          : fitLeft(std::string(direction) + " " + selection.shortName(), nameWidth);
    }
}

void DeviceMeters::note(size_t meter, const DXRBuffer& buffer) noexcept
{
    const size_t channels = buffer.channelCount(), end = channels * buffer.frameCount();
    for (size_t channel = 0; channel < std::min<size_t>(channels, _meters[meter].channelCount); ++channel) {
        std::atomic<float>& highest = _meters[meter].peaks[channel];
        float peak = 0.0F;
        for (size_t k = channel; k < end; k += channels)
            peak = std::max(peak, std::fabs(buffer.samples()[k]));
        float before = highest.load(std::memory_order_relaxed);
        while (peak > before && !highest.compare_exchange_weak(before, peak, std::memory_order_relaxed)) {
        }
    }
}

std::vector<float> DeviceMeters::takePeaks(size_t meter)
{
    std::vector<float> peaks;
    for (uint32_t channel = 0; channel < _meters[meter].channelCount; ++channel)
        peaks.push_back(_meters[meter].peaks[channel].exchange(0.0F, std::memory_order_relaxed));
    return peaks;
}

std::vector<std::string> DeviceMeters::draw(size_t width, const Terminal& terminal)
{
    const auto now = std::chrono::steady_clock::now();
    const float seconds = std::min(1.0F, std::chrono::duration<float>(now - _drawn).count());
    const float fall = std::pow(10.0F, -fallDecibelsPerSecond * seconds / 20.0F);
    _drawn = now;
    size_t count = 0;
    for (const Meter& meter : _meters)
        count += meter.channelCount > maxBars ? 1 : meter.channelCount;
    std::vector<std::string> lines;
    for (size_t i = 0; i < _meters.size() && lines.size() < maxLines; ++i) {
        Meter& meter = _meters[i];
        std::vector<float> peaks = takePeaks(i);
        const bool isLoudest = count > maxLines || meter.channelCount > maxBars;
        if (isLoudest && !peaks.empty())
            peaks = {*std::ranges::max_element(peaks)};
        for (size_t bar = 0; bar < peaks.size(); ++bar) {
            meter.shown[bar] = std::max(peaks[bar], meter.shown[bar] * fall);
            const std::string number = peaks.size() == 1 ? "" : formatText(" %zu", bar + 1);
            lines.push_back(_bar(meter.label + number, meter.shown[bar], width, terminal));
        }
    }
    if (_meters.size() > maxLines)
        lines.back() = "…";
    return lines;
}

std::string DeviceMeters::_bar(const std::string& label, float level, size_t width, const Terminal& terminal)
{
    constexpr size_t minLabel = 7; // "out 8" and a gap
    const std::string start = fitLeft(label, label.size() < minLabel ? minLabel : labelWidth);
    const std::string number = fitRight(formatLevel(double{level}), 9);
    const size_t used = displayWidth(start) + number.size() + 1;
    return start + levelBar(level, width > used ? width - used : 0, terminal) + " " + number;
}
