#pragma once

#include "DeviceSelection.h"
#include "Terminal.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <dxr/DXRBuffer.h>
#include <memory>

/// Level meters of devices.
/// Threads:   note() in a runner's cycles; all else on one other thread, add() before the runner starts.
/// Real time: note().
class DeviceMeters {
public:
    /// Adds a meter for each of `selections`, labelled `direction` and, if there are several, with its name.
    void add(const char* direction, const std::vector<DeviceSelection>& selections);
    /// Notes the peaks of `buffer` in the meter with this index, in the order of add().
    void note(size_t meter, const DXRBuffer& buffer) noexcept CX_REALTIME;

    /// Sets the levels from the peaks since the last call. Levels fall slowly, to show short peaks.
    void update();
    /// The level of the loudest channel, as of the last update(); 1.0 is full scale.
    float level(size_t meter) const
    {
        const std::vector<float>& levels = _meters[meter].levels;
        return levels.empty() ? 0.0F : *std::ranges::max_element(levels);
    }
    /// Calls update() and returns bars of `width` columns: one for each channel or, if there are too many,
    /// one for the loudest channel of each device.
    std::vector<std::string> draw(size_t width, const Terminal& terminal);

private:
    struct Meter {
        // The maximum since the last update(). The IO thread raises it by compare-and-swap, update() resets
        // it to 0 by exchange, so that no peak is lost. Relaxed: the peaks order no other memory.
        std::unique_ptr<std::atomic<float>[]> peaks;
        std::vector<float> levels;
        std::string label;
    };
    static std::string _bar(const std::string& label, float level, size_t width, const Terminal& terminal);

    std::deque<Meter> _meters;
    std::chrono::steady_clock::time_point _updated{};
};
