#pragma once

#include "Chart.h"
#include "TickHistogram.h"

#include <dxr/DXRCycleTrace.h>

/// Draws what the cycles of a runner were like: over time, where they came from, which devices were connected, how late they
/// came in, how long they took, and whether the runner's time went on; below, how these times are distributed. However long
/// the run, it takes the same memory.
/// Threads: one.
class CyclePicture {
public:
    void note(const DXRCycleRecord& record);
    /// Which of the devices are connected now, of as many as there are names.
    void notePresence(const std::vector<bool>& isConnected);
    /// A remark at the lane of a device, at the time of the last record.
    void remark(size_t device, const std::string& text) { _remarks.push_back({device, _lastSeconds, text}); }

    /// Another panel over the same time.
    struct Panel {
        struct Curve {
            const char* name;
            const char* colour;
            std::vector<Chart::Point> points; ///< x in seconds, as secondsAt()
        };
        std::string title;
        double from, to; ///< of its values
        const char* unit;
        std::vector<Curve> curves;
    };
    void add(Panel panel) { _panels.push_back(std::move(panel)); }
    /// Seconds of the picture, which begins with the first record.
    double secondsAt(uint64_t hostTicks) const;

    /// The whole picture of a run at `sampleRate` Hz, with a title and a line of results above. Texts may be anything.
    std::string svg(double sampleRate, const std::vector<std::string>& deviceNames, const std::string& title,
                    const std::string& results) const;

private:
    /// What happened in a short stretch of time.
    struct Stretch {
        double latest = -1.0;  // seconds from when a cycle was due until it came in; negative: of no cycle
        double longest = -1.0; // seconds that blocks ran
        double firstSampleTime = -1.0; // the runner's, of the first cycle, and when that was due
        double firstSeconds = 0.0;
        uint32_t contexts = 0; // a bit for each kind
        uint32_t changes = 0;  // of context
        uint32_t lateCycles = 0;
        uint64_t devices = 0; // a bit for each that was connected all the time, of the first 64
        bool hasPresence = false;

        void take(const Stretch& next);
    };
    struct Remark {
        size_t device;
        double seconds;
        std::string text;
    };

    Stretch& _stretchAt(double seconds);
    double _duration() const;
    uint32_t _contextsIn(size_t stretch) const;
    double _x(double seconds) const;
    ChartAxis _timeAxis() const;

    double _drawLanes(Chart& chart, double top, const std::vector<std::string>& deviceNames) const;
    void _drawContexts(Chart& chart, double top) const;
    void _drawDevice(Chart& chart, double top, size_t device) const;
    void _drawTimes(ChartPanel panel) const;
    void _drawProgress(Chart& chart, double top, double height, double sampleRate) const;
    double _drawDistribution(Chart& chart, double top, double height) const;

    uint64_t _beginTicks = 0;
    double _lastSeconds = 0.0;
    double _stretchSeconds = 0.01; // of each stretch; doubles when there would be too many
    std::vector<Stretch> _stretches;
    std::vector<Remark> _remarks;
    std::vector<Panel> _panels;
    double _cycleSeconds = 0.0; // what a device's cycle has, of the last one
    TickHistogram _lateness, _waits, _runs, _ends;
};
