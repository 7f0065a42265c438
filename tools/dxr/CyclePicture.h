#pragma once

#include "TickHistogram.h"

#include <dxr/DXRCycleTrace.h>
#include <string>
#include <vector>

/// Draws what the cycles of a runner were like as an SVG picture: over time, where they came from, which devices were
/// there, how late they came in, how long they took, and whether the runner's time went on; below, how all these times
/// are distributed. However long the run, it takes the same memory.
/// Threads: one.
class CyclePicture {
public:
    void note(const DXRCycleRecord& record);
    /// Which of the devices are there now, of as many as there are names.
    void notePresence(const std::vector<bool>& isThere);

    /// The whole picture of a run at `sampleRate` Hz, with a title and a line of results above. Texts may be anything.
    std::string svg(double sampleRate, const std::vector<std::string>& deviceNames, const std::string& title,
                    const std::string& results) const;

private:
    /// What happened in a short stretch of time.
    struct Stretch {
        double latest = -1.0;  // seconds from when a cycle was due until it came in; negative: of no cycle
        double longest = -1.0; // seconds that blocks ran
        double firstSampleTime =
            -1.0; // the runner's, of the first cycle in the stretch, and when that was due
        double firstSeconds = 0.0;
        uint32_t contexts = 0; // a bit for each kind
        uint32_t changes = 0;  // of context
        uint32_t lateCycles = 0;
        uint64_t devices = 0; // a bit for each that was there all the time, of the first 64
        bool hasPresence = false;

        void take(const Stretch& next);
    };

    Stretch& _stretchAt(double seconds);
    double _secondsAt(uint64_t ticks) const;
    double _duration() const;
    uint32_t _contextsIn(size_t stretch) const;
    double _x(double seconds) const;

    std::string _contextLane(double top) const;
    std::string _deviceLane(size_t device, const std::string& name, double top) const;
    std::string _timesPanel(double top) const;
    std::string _progressPanel(double top, double sampleRate) const;
    std::string _distributionPanel(double top) const;
    std::string _timeGrid(double top, double bottom) const;

    uint64_t _beginTicks = 0;
    double _lastSeconds = 0.0;
    double _stretchSeconds = 0.01; // of each stretch; doubles when there would be too many
    std::vector<Stretch> _stretches;
    double _cycleSeconds = 0.0; // what a device's cycle has, of the last one
    TickHistogram _lateness, _waits, _runs, _ends;
};
