#pragma once

#include "Chart.h"
#include "TickHistogram.h"

#include <dxr/DXRCycleTrace.h>

/// Draws the cycles of a runner: their source, the connected devices, lateness, run time, and the difference
/// between the runner's time and the clock, each over time; then the distribution of lateness and run times.
/// Memory use is bounded, however long the run.
/// Threads: one at a time.
class CyclePicture {
public:
    void note(std::span<const DXRCycleRecord> records)
    {
        for (const DXRCycleRecord& record : records)
            note(record);
    }
    void note(const DXRCycleRecord& record);
    /// Notes which devices are connected at the time of the last record; same order as `deviceNames` of
    /// svg().
    void notePresence(const std::vector<bool>& isConnected);
    /// Adds a remark to the lane of a device, at the time of the last record.
    void remark(size_t device, const std::string& text) { _remarks.push_back({device, _lastSeconds, text}); }

    /// An additional panel with the same time axis.
    struct Panel {
        struct Curve {
            const char* name;
            const char* colour;
            std::vector<Chart::Point> points; ///< x as returned by secondsAt()
        };
        std::string title;
        double from, to; ///< the range of its values
        const char* unit;
        std::vector<Curve> curves;
    };
    void add(Panel panel) { _panels.push_back(std::move(panel)); }
    /// Seconds since the first record.
    double secondsAt(uint64_t hostTicks) const;

    /// Returns the SVG picture of a run at `sampleRate` Hz. Texts may contain any characters.
    std::string svg(double sampleRate, const std::vector<std::string>& deviceNames, const std::string& title,
                    const std::string& results) const;

private:
    /// The cycles of a short stretch of time.
    struct Stretch {
        double latest = -1.0;          // maximum seconds from due to begin; negative: no cycle
        double longest = -1.0;         // maximum seconds that blocks ran
        double firstSampleTime = -1.0; // the runner's sample time of the first cycle, and when it was due
        double firstSeconds = 0.0;
        uint32_t contexts = 0; // a bit for each kind of context
        uint32_t changes = 0;  // changes of context
        uint32_t lateCycles = 0;
        uint64_t devices = 0; // a bit for each of the first 64 devices that was connected all the time
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
    double _stretchSeconds = 0.01; // doubled whenever the run exceeds the maximum number of stretches
    std::vector<Stretch> _stretches;
    std::vector<Remark> _remarks;
    std::vector<Panel> _panels;
    double _cycleSeconds = 0.0; // from due time to deadline, of the last device cycle
    TickHistogram _lateness, _waits, _runs, _ends;
};
