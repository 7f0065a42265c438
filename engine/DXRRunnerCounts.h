#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What happened in a runner since its start, as counts.
struct DXRRunnerCounts {
    /// The reason for replacing the context.
    enum class Restart : uint8_t {
        None,
        Nodes,   ///< a device was added or removed
        Devices, ///< a device appeared or disappeared
        Layout,  ///< the channels of a device or of a part of an aggregate changed
        Retry    ///< the previous start failed
    };
    struct Device {
        std::string uid;
        uint64_t lostFrames = 0;         ///< frames of its clock without a cycle, or missing in an aggregate
        uint32_t resynchronisations = 0; ///< how often its frames jumped to follow the aggregate's clock
    };

    uint64_t cycles = 0;
    uint64_t lateCycles = 0; ///< cycles that ended after the next one was due
    uint64_t restarts = 0;
    Restart lastRestart = Restart::None;
    std::vector<Device> devices; ///< of the present context; excludes frames lost in earlier contexts

    uint64_t lostFrames() const noexcept
    {
        uint64_t all = 0;
        for (const Device& each : devices)
            all += each.lostFrames;
        return all;
    }
};
