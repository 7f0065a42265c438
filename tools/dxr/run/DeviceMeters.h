#pragma once

#include "DeviceSelection.h"
#include "Terminal.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <dxr/DXRBuffer.h>
#include <memory>

/// Level meters of devices.
/// Threads:   note() in a runner's cycles, the rest on one other thread; add() before the cycles.
/// Real time: note().
class DeviceMeters {
public:
    /// Adds a meter for each of `selections`. A single one is labelled `direction`, several also by their
    /// names.
    void add(const char* direction, const std::vector<DeviceSelection>& selections);
    void note(size_t meter, const DXRBuffer& buffer) noexcept CX_REALTIME;

    /// Takes the peaks since the last call. Levels fall slowly, to show short peaks.
    void update();
    /// Of the loudest channel, by the last update(); 1.0 is full scale.
    float level(size_t meter) const;
    /// Updated bars, `width` columns wide, for each channel, or where there are too many for the loudest of
    /// each device.
    std::vector<std::string> draw(size_t width, const Terminal& terminal);

private:
    struct Meter {
        // The largest since it was last taken. The IO thread raises it, the reader resets it to 0, both by
        // atomic exchange, so that no peak is lost. Orders nothing else.
        std::unique_ptr<std::atomic<float>[]> peaks;
        std::vector<float> levels;
        std::string label;
    };
    static std::string _bar(const std::string& label, float level, size_t width, const Terminal& terminal);

    std::deque<Meter> _meters;
    std::chrono::steady_clock::time_point _updated{};
};
