#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What has happened to a runner since its start, as numbers.
struct DXRRunnerCounts {
    /// Why a context was made anew.
    enum class Restart : uint8_t {
        None,
        Nodes,   ///< a device was added or removed
        Devices, ///< a device came or went
        Layout,  ///< a device, or a part of an aggregate, has other channels
        Retry    ///< the start before had failed
    };
    struct Device {
        std::string uid;
        uint64_t lostFrames = 0; ///< that its clock went on by without a cycle, or that an aggregate wanted
        uint32_t resynchronisations = 0; ///< how often its frames had to jump to its aggregate's clock
    };

    uint64_t cycles = 0;
    uint64_t lateCycles = 0; ///< that ended after the next one was due
    uint64_t restarts = 0;
    Restart lastRestart = Restart::None;
    std::vector<Device> devices; ///< of the present context; frames lost with an earlier one are not in it

    uint64_t lostFrames() const noexcept
    {
        uint64_t all = 0;
        for (const Device& each : devices)
            all += each.lostFrames;
        return all;
    }
};
