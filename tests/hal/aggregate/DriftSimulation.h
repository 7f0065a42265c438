#pragma once

#include <cstdint>
#include <vector>

// What an aggregate does about clocks that drift, on two simulated devices: the very controller, ring and resampler
// that join real ones, driven by the cycles of two clocks that are known exactly. A day takes seconds, and every
// run gives the same.

/// One device of a simulated pair.
struct DriftingClock {
    double rate = 48000.0;        ///< nominal, Hz
    uint32_t frameCount = 512;    ///< of a cycle
    double partsPerMillion = 0.0; ///< how much faster than nominal it runs
    /// On top of that, as temperature does: a sine of this height and period.
    double wanderPartsPerMillion = 0.0;
    double wanderSeconds = 1200.0;
};

/// Something that goes wrong with a device.
struct DriftFault {
    enum class Kind {
        ThreadStalls, ///< its cycles wait, and then come in one burst
        ClockPauses,  ///< its time stands still, and goes on where it was
        LosesCycles,  ///< its time passes, without cycles
        RateChanges   ///< by `partsPerMillion`, for good
    };
    Kind kind = Kind::ThreadStalls;
    bool isWriter = true;
    double atSeconds = 0.0;
    double seconds = 1.0; ///< how long
    double partsPerMillion = 0.0;
};

/// Frames go from the writer's cycles to the reader's. Every cycle's thread wakes late, and its time stamp is late by
/// as much: by some 57 microseconds in the middle with 64 frames and 114 with 512 or more, which was seen on a real
/// server, by 0.6 to 3 times that as a rule, and once in 2000 cycles by up to 0.4 milliseconds more.
struct DriftScenario {
    DriftingClock writer, reader;
    double seconds = 120.0;
    double lateness = 1.0; ///< that many times what was seen
    uint32_t seed = 1;
    bool compensates = true;
    std::vector<DriftFault> faults; ///< in order of time
};

/// A moment of a run.
struct DriftPoint {
    double seconds;
    double partsPerMillion;     ///< the reading rate over the nominal ratio
    double truePartsPerMillion; ///< the true ratio
    double delayFrames;         ///< from the writer's clock to the reading position, exactly
    double levelFrames;         ///< frames in the ring after the reading position
};

struct DriftOutcome {
    std::vector<DriftPoint> points; ///< some two thousand at most, evenly spread
    double settledSeconds =
        0.0;                    ///< from when on the delay was within half a frame of its last value for 10 s
    double delayFrames = 0.0;   ///< its mean over the last half
    double wanderFrames = 0.0;  ///< the farthest from it, after 15 s
    double ratioErrorRMS = 0.0; ///< parts per million, after 15 s
    uint64_t lostFrames = 0;
    uint32_t resynchronisations = 0;
};

/// Runs the controller.
DriftOutcome simulateDrift(const DriftScenario& scenario);

struct DriftTone {
    double signalToNoise = 0.0; ///< dB, of all tenths of a second together
    double worstBlock = 0.0;    ///< dB, of the worst tenth of a second
};

/// Sends a sine of `hertz` through the whole path and compares each tenth of a second from `fromSeconds` on with the
/// sine, of any level, phase and frequency, that fits it best: what is left is noise, and the sidebands of a ratio that
/// wobbles.
DriftTone simulateDriftOfTone(const DriftScenario& scenario, double hertz, double fromSeconds);
