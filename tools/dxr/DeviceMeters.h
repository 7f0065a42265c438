#pragma once

#include "DeviceSelection.h"
#include "LevelMeter.h"

#include <deque>

/// The level meters of a command's devices, one under the other.
/// Threads:   note() in a runner's cycles, the rest on one other thread; all are added before.
/// Real time: note().
class DeviceMeters {
public:
    /// Adds a meter for each of `selections`, called "in" or "out" where it is alone, else by the devices' names. Answers
    /// the number of the first.
    size_t add(const char* direction, const std::vector<DeviceSelection>& selections);
    void note(size_t meter, const DXRBuffer& buffer) noexcept CX_REALTIME { _meters[meter].note(buffer); }

    /// The peak of each channel of a meter since it was last asked or drawn.
    std::vector<float> takePeaks(size_t meter) { return _meters[meter].takePeaks(); }
    /// All bars, each `width` columns wide.
    std::vector<std::string> draw(size_t width, const Terminal& terminal);

private:
    std::deque<LevelMeter> _meters;
    std::vector<std::string> _labels;
};
