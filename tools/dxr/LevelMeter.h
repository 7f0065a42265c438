#pragma once

#include "Terminal.h"

#include <atomic>
#include <chrono>
#include <dxr/DXRBuffer.h>
#include <memory>
#include <vector>

/// The peaks of a device's channels, and how they look on a terminal.
/// Threads:   note() on an IO thread, the rest on one other.
/// Real time: note().
class LevelMeter {
public:
    explicit LevelMeter(uint32_t channelCount);

    /// Takes the cycle's samples into account.
    void note(const DXRBuffer& buffer) noexcept CX_REALTIME;

    /// How much is drawn: every channel, unless there are very many, or only the loudest of them.
    enum class Detail { Channels, Loudest };
    /// The lines that draw() makes.
    size_t lineCount(Detail detail) const noexcept;
    /// The peak of each channel since the last call, 1.0 being full scale.
    std::vector<float> takePeaks();
    /// Bars for such peaks, one a line, each `width` columns wide, after `label`. The bars fall slowly, so
    /// that short peaks can be seen.
    std::vector<std::string> draw(const std::string& label, const std::vector<float>& peaks, size_t width,
                                  const Terminal& terminal, Detail detail = Detail::Channels);

private:
    void _raise(uint32_t channel, const float* samples, size_t count, size_t stride) noexcept CX_REALTIME;

    const uint32_t _channelCount;
    // The largest since it was last taken. The IO thread raises it, the reader takes it back to 0; both by
    // atomic exchange, so that no peak is lost between them. Nothing else depends on it.
    const std::unique_ptr<std::atomic<float>[]> _peaks;
    std::vector<float> _shown; // what the bars stand at
    std::chrono::steady_clock::time_point _drawn{};
};
