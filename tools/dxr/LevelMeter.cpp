#include "LevelMeter.h"

#include "DisplayText.h"
#include "LevelBar.h"
#include "TextFormat.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr float fallDecibelsPerSecond = 24.0F;
constexpr uint32_t mostBars = 8;
constexpr size_t leastLabelWidth = 7; // "out 8" and a gap

} // namespace

LevelMeter::LevelMeter(uint32_t channelCount)
    : _channelCount(channelCount), _peaks(std::make_unique<std::atomic<float>[]>(channelCount)),
      _shown(std::min(channelCount, mostBars), 0.0F)
{}

void LevelMeter::note(const DXRBuffer& buffer) noexcept
{
    const size_t channels = buffer.channelCount();
    for (uint32_t channel = 0; channel < std::min<size_t>(channels, _channelCount); ++channel)
        _raise(channel, buffer.samples() + channel, channels * buffer.frameCount() - channel, channels);
}

/// Takes every `stride`th of `count` samples.
void LevelMeter::_raise(uint32_t channel, const float* samples, size_t count, size_t stride) noexcept
{
    float peak = 0.0F;
    for (size_t k = 0; k < count; k += stride)
        peak = std::max(peak, std::fabs(samples[k]));
    float before = _peaks[channel].load(std::memory_order_relaxed);
    while (peak > before && !_peaks[channel].compare_exchange_weak(before, peak, std::memory_order_relaxed)) {
    }
}

size_t LevelMeter::lineCount(Detail detail) const noexcept
{
    return detail == Detail::Loudest || _channelCount > mostBars ? 1 : _channelCount;
}

std::vector<float> LevelMeter::takePeaks()
{
    std::vector<float> peaks;
    for (uint32_t channel = 0; channel < _channelCount; ++channel)
        peaks.push_back(_peaks[channel].exchange(0.0F, std::memory_order_relaxed));
    return peaks;
}

std::vector<std::string> LevelMeter::draw(const std::string& label, const std::vector<float>& peaks,
                                          size_t width, const Terminal& terminal, Detail detail)
{
    const auto now = std::chrono::steady_clock::now();
    const float seconds = std::min(1.0F, std::chrono::duration<float>(now - _drawn).count());
    _drawn = now;
    const float fall = std::pow(10.0F, -fallDecibelsPerSecond * seconds / 20.0F);
    const size_t bars = std::min<size_t>(lineCount(detail), _channelCount);
    const size_t labelWidth = std::max(leastLabelWidth, displayWidth(label) + 3);
    std::vector<std::string> lines;
    for (size_t bar = 0; bar < bars; ++bar) {
        const float peak = bars == 1 && !peaks.empty() ? *std::ranges::max_element(peaks) : peaks[bar];
        _shown[bar] = std::max(peak, _shown[bar] * fall);
        const std::string number = bars == 1 ? "" : formatText(" %zu", bar + 1);
        const std::string level = fitRight(formatLevel(double{_shown[bar]}), 9);
        const size_t room = width > labelWidth + level.size() + 1 ? width - labelWidth - level.size() - 1 : 0;
        std::string line = fitLeft(label + number, labelWidth);
        line.append(levelBar(_shown[bar], room, terminal)).append(" ").append(level);
        lines.push_back(std::move(line));
    }
    return lines;
}
