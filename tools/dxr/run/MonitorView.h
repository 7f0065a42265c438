#pragma once

#include "CycleStatistics.h"
#include "DeviceReport.h"
#include "Terminal.h"

#include <deque>

/// The contents of `dxr monitor` at one moment. Texts may contain any characters.
struct MonitorState {
    struct Device {
        std::string direction; ///< "in" or "out"
        std::string name;
        bool isConnected = true;
        double sampleRate = 0.0;
        std::string clock;       ///< "leads", "+12.3 ppm"; empty if the device runs alone
        uint64_t lostFrames = 0; ///< replaced by silence in an aggregate
        float level = 0.0F;      ///< peak, 1.0 being full scale
    };

    double seconds = 0.0; ///< since the start
    double sampleRate = 0.0;
    uint32_t frameCount = 0;
    std::string context = {};    ///< the source of the cycles: "2 devices as one"
    double usedSeconds = 0.0;    ///< from due time to end, of the slowest recent cycle
    double cycleSeconds = 0.0;   ///< from due time to deadline; 0 before the first cycle
    double longestSeconds = 0.0; ///< maximum of usedSeconds
    CycleStatistics cycles = {};
    uint64_t lostFrames = 0; ///< in gaps between cycles and by the devices
    std::vector<Device> devices = {};
    std::vector<DeviceReport> others = {};
    std::deque<std::string> messages = {}; ///< the newest last
    bool isHeard = false;                  ///< whether the outputs play the inputs
};

/// Returns `rows` lines of up to `columns` columns, for any size. Lines that do not fit are left out.
std::vector<std::string> monitorLines(const MonitorState& state, size_t columns, size_t rows,
                                      const Terminal& terminal);
