#pragma once

#include "Terminal.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

/// What `dxr monitor` shows at one moment. Texts may be anything.
struct MonitorState {
    struct Device {
        std::string direction; ///< "in" or "out"
        std::string name;
        bool isConnected = true;
        std::string state; ///< "runs", "gone"
        double sampleRate = 0.0;
        std::string clock;       ///< "leads", "+12.3 ppm"; empty where it runs alone
        uint64_t lostFrames = 0; ///< silent for want of them, while it was brought to the others' clock
        float level = 0.0F;      ///< peak, 1.0 being full scale
    };
    struct OtherDevice {
        std::string name;
        uint32_t inputs = 0, outputs = 0; ///< channels
        double sampleRate = 0.0;
    };

    double seconds = 0.0; ///< since it began
    double sampleRate = 0.0;
    uint32_t frameCount = 0;
    std::string context;         ///< what the cycles come from: "2 devices as one"
    double usedSeconds = 0.0;    ///< from when a cycle was due until it was done, of the slowest of late
    double cycleSeconds = 0.0;   ///< what a cycle has; 0 while there is none
    double longestSeconds = 0.0; ///< as usedSeconds, of all so far
    uint64_t cycles = 0, lateCycles = 0, gaps = 0, lostFrames = 0, restarts = 0;
    double timerSeconds = 0.0; ///< without any device
    std::vector<Device> devices;
    std::vector<OtherDevice> others;
    std::deque<std::string> messages; ///< the latest last
    std::string keys;                 ///< what the keys do
};

/// The picture of it, at most `rows` lines of at most `columns` columns each, of any number: what does not fit is
/// left out, the messages first. Threads: any.
std::vector<std::string> monitorLines(const MonitorState& state, size_t columns, size_t rows,
                                      const Terminal& terminal);
