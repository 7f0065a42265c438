#pragma once

#include "DeviceSelection.h"
#include "Terminal.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <dxr/DXRBuffer.h>
#include <memory>

/// The level meters of a command's devices, one under the other.
/// Threads:   note() in a runner's cycles, the rest on one other thread; all are added before.
/// Real time: note().
class DeviceMeters {
public:
    /// Adds a meter for each of `selections`, called "in" or "out" where it is alone, else by the devices' names.
    void add(const char* direction, const std::vector<DeviceSelection>& selections);
    void note(size_t meter, const DXRBuffer& buffer) noexcept CX_REALTIME;

    /// The peak of each channel of a meter since it was last asked for or drawn, 1.0 being full scale.
    std::vector<float> takePeaks(size_t meter);
    /// A bar for each channel, or where there are very many for the loudest of a device, each `width` columns wide. Bars fall
    /// slowly, so that short peaks can be seen.
    std::vector<std::string> draw(size_t width, const Terminal& terminal);

private:
    struct Meter {
        explicit Meter(uint32_t channels);

        const uint32_t channelCount;
        // The largest since it was last taken. The IO thread raises it, the reader takes it back to 0; both by atomic
        // exchange, so that no peak is lost between them. Nothing else depends on it.
        const std::unique_ptr<std::atomic<float>[]> peaks;
        std::string label;
        std::vector<float> shown; // what the bars stand at
    };
    static std::string _bar(const std::string& label, float level, size_t width, const Terminal& terminal);

    std::deque<Meter> _meters;
    std::chrono::steady_clock::time_point _drawn{};
};
