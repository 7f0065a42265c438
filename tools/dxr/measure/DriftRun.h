#pragma once

#include <cstdint>
#include <vector>

/// One of two simulated devices.
struct DriftingClock {
    double rate = 48000.0;        ///< nominal, Hz
    uint32_t frameCount = 512;    ///< frames of a cycle
    double partsPerMillion = 0.0; ///< how much faster than nominal the clock runs
    /// The amplitude and period of a sine that is added to partsPerMillion, as temperature would.
    double wanderPartsPerMillion = 0.0;
    double wanderSeconds = 1200.0;
};

/// Two simulated devices in an aggregate: audio is read from `source` by `reader`, the aggregate's clock
/// device.
struct DriftScenario {
    DriftingClock source, reader;
    double seconds = 120.0;
    double lateness = 1.0; ///< of time stamps; 1: as on a real server
};

/// A moment of a run.
struct DriftPoint {
    double seconds;
    double partsPerMillion;     ///< source's clock against the reader's, as the aggregate measures it
    double truePartsPerMillion; ///< the same as simulated
    double delayFrames;         ///< from the source's clock to the frame read, measured with a signal
    double levelFrames;         ///< frames in the ring buffer
};

struct DriftFigures {
    double settledSeconds = 0.0; ///< when the delay first stayed within half a frame of its mean for 10 s
    double delayFrames = 0.0;    ///< mean over the second half of the run
    double wanderFrames = 0.0;   ///< maximum distance from that mean, after 15 s
    double ratioErrorRMS = 0.0;  ///< parts per million, after 15 s
    uint64_t lostFrames = 0;
    uint32_t resynchronisations = 0;
};

struct DriftRun {
    std::vector<DriftPoint> points; ///< up to twenty thousand, at equal intervals
    DriftFigures figures;
};

/// Runs an aggregate of two clocks on a simulated computer with a stepped clock: an hour takes seconds, and
/// results are repeatable. Throws ToolFailure if the aggregate cannot be created.
/// Threads: any, but only one run per process, because the simulated computer becomes the process's hardware.
DriftRun runDrift(const DriftScenario& scenario);
