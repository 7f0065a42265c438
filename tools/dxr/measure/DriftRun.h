#pragma once

#include <cstdint>
#include <vector>

/// One device of a simulated pair.
struct DriftingClock {
    double rate = 48000.0;        ///< nominal, Hz
    uint32_t frameCount = 512;    ///< of a cycle
    double partsPerMillion = 0.0; ///< how much faster than nominal it runs
    /// Added to that, as by temperature: the height and period of a sine.
    double wanderPartsPerMillion = 0.0;
    double wanderSeconds = 1200.0;
};

/// Two simulated devices in an aggregate, from the source to the reader, which is the aggregate's clock.
struct DriftScenario {
    DriftingClock source, reader;
    double seconds = 120.0;
    double lateness = 1.0; ///< of time stamps; 1 as on a real server
};

/// A moment of a run.
struct DriftPoint {
    double seconds;
    double partsPerMillion;     ///< of the source's clock against the reader's, as the aggregate measures it
    double truePartsPerMillion; ///< as simulated
    double delayFrames;         ///< from the source's clock to the read frame, measured by a signal
    double levelFrames;         ///< in the ring buffer
};

struct DriftFigures {
    double settledSeconds = 0.0; ///< when the delay came within half a frame of its mean for 10 s
    double delayFrames = 0.0;    ///< mean of the second half
    double wanderFrames = 0.0;   ///< maximum distance from it, after 15 s
    double ratioErrorRMS = 0.0;  ///< parts per million, after 15 s
    uint64_t lostFrames = 0;
    uint32_t resynchronisations = 0;
};

struct DriftRun {
    std::vector<DriftPoint> points; ///< up to twenty thousand, evenly spread
    DriftFigures figures;
};

/// Runs an aggregate of two clocks on a simulated computer whose time is stepped: an hour takes seconds, and
/// results are repeatable. Throws ToolFailure when the aggregate cannot be made.
/// Threads: one. The simulated computer becomes the process's hardware: one run in a process.
DriftRun runDrift(const DriftScenario& scenario);
