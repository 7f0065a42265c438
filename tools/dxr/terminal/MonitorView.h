#pragma once

#include "Terminal.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

/// The contents of `dxr monitor` at one moment. Texts may be anything.
struct MonitorState {
    struct Device {
        std::string direction; ///< "in" or "out"
        std::string name;
        bool isConnected = true;
        double sampleRate = 0.0;
        std::string clock;       ///< "leads", "+12.3 ppm"; empty when it runs alone
        uint64_t lostFrames = 0; ///< replaced by silence in an aggregate
        float level = 0.0F;      ///< peak, 1.0 being full scale
    };
    struct OtherDevice {
        std::string name;
        uint32_t inputs = 0, outputs = 0; ///< channels
        double sampleRate = 0.0;
    };

    double seconds = 0.0; ///< since the start
    double sampleRate = 0.0;
    uint32_t frameCount = 0;
    std::string context;         ///< the source of the cycles: "2 devices as one"
    double usedSeconds = 0.0;    ///< from due to end, of the slowest recent cycle
    double cycleSeconds = 0.0;   ///< from due to deadline; 0 before the first cycle
    double longestSeconds = 0.0; ///< maximum of usedSeconds
    uint64_t cycles = 0, lateCycles = 0, gaps = 0, lostFrames = 0, restarts = 0;
    double timerSeconds = 0.0; ///< without any device
    std::vector<Device> devices;
    std::vector<OtherDevice> others;
    std::deque<std::string> messages; ///< the latest last
    std::string keys;                 ///< their explanation
};

/// The picture: `rows` lines of up to `columns` columns, however few. What does not fit is left out, messages
/// first.
/// Threads: any.
std::vector<std::string> monitorLines(const MonitorState& state, size_t columns, size_t rows,
                                      const Terminal& terminal);
