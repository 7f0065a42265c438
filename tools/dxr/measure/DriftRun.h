#pragma once

#include <cstdint>
#include <vector>

/// One device of a simulated pair.
struct DriftingClock {
    double rate = 48000.0;        ///< nominal, Hz
    uint32_t frameCount = 512;    ///< of a cycle
    double partsPerMillion = 0.0; ///< how much faster than nominal it runs
    /// On top of that, as temperature does: a sine of this height and period.
    double wanderPartsPerMillion = 0.0;
    double wanderSeconds = 1200.0;
};

/// Two simulated devices in one aggregate; frames go from the source to the reader, which is the aggregate's clock.
struct DriftScenario {
    DriftingClock source, reader;
    double seconds = 120.0;
    double lateness = 1.0; ///< of time stamps; 1 is what was seen on a real server
};

/// A moment of a run.
struct DriftPoint {
    double seconds;
    double partsPerMillion;     ///< of the source's clock against the reader's, as the aggregate has found
    double truePartsPerMillion; ///< as it is
    double delayFrames;         ///< from the source's clock to what is read, measured by a signal that passes
    double levelFrames;         ///< frames that wait between the two
};

struct DriftFigures {
    double settledSeconds = 0.0; ///< from when on the delay was within half a frame of its mean for 10 s
    double delayFrames = 0.0;    ///< its mean over the last half
    double wanderFrames = 0.0;   ///< the farthest from it, after 15 s
    double ratioErrorRMS = 0.0;  ///< parts per million, after 15 s
    uint64_t lostFrames = 0;
    uint32_t resynchronisations = 0;
};

/// What an aggregate makes of two clocks, on a simulated computer whose time is stepped: an hour takes seconds, and
/// each run gives the same.
/// Threads: one. It makes the simulated computer the process's hardware: one run in a process.
class DriftRun {
public:
    /// Runs the scenario. Fails with ToolFailure when the aggregate cannot be made.
    explicit DriftRun(const DriftScenario& scenario);

    /// Evenly spread, some twenty thousand at most.
    const std::vector<DriftPoint>& points() const { return _points; }
    const DriftFigures& figures() const { return _figures; }

private:
    void _summarise(double seconds);

    std::vector<DriftPoint> _points;
    DriftFigures _figures;
};
