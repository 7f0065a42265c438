#pragma once

#include "Chart.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <dxr/DXRCycleTrace.h>

/// Counts durations in logarithmic bins, 24 to a decade, from 100 ns to 10 s. Durations outside this range
/// are counted in the first or last bin.
class TickHistogram {
public:
    static constexpr size_t binsPerDecade = 24;
    static constexpr size_t binCount = 8 * binsPerDecade;
    static constexpr double minSeconds = 1e-7;

    void note(double seconds)
    {
        const double place = std::log10(std::max(seconds, minSeconds) / minSeconds) * binsPerDecade;
        ++_bins[std::min(static_cast<size_t>(place), binCount - 1)];
        ++_count;
        _longest = std::max(_longest, seconds);
    }
    uint64_t count() const { return _count; }
    double longestSeconds() const { return _longest; }
    uint64_t countIn(size_t bin) const { return _bins[bin]; }
    /// The lower limit of a bin, in seconds; beginOf(binCount) is the upper limit of the last.
    static double beginOf(size_t bin)
    {
        return minSeconds * std::pow(10.0, static_cast<double>(bin) / binsPerDecade);
    }
    /// The duration that the part `share`, 0 to 1, of all durations does not exceed, to the accuracy of a
    /// bin; 0 if nothing was counted.
    double quantileSeconds(double share) const
    {
        const auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(_count)));
        uint64_t seen = 0;
        for (size_t bin = 0; bin < binCount; ++bin) {
            seen += _bins[bin];
            if (seen >= wanted && seen > 0)
                return std::min(beginOf(bin + 1), _longest);
        }
        return _longest;
    }

private:
    std::array<uint64_t, binCount> _bins{};
    uint64_t _count = 0;
    double _longest = 0.0;
};

/// Draws the cycles of a runner: their source, the connected devices, lateness, run time, and the difference
/// between the runner's time and the clock, each over time; then the distribution of lateness and run times.
/// Memory use is bounded, however long the run.
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
    double secondsAt(uint64_t hostTicks) const;

    /// Returns the SVG picture of a run at `sampleRate` Hz. Texts may contain any characters.
    std::string svg(double sampleRate, const std::vector<std::string>& deviceNames, const std::string& title,
                    const std::string& results) const;

private:
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
