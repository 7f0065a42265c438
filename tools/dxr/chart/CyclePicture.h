#pragma once

#include "Chart.h"
#include "CycleStatistics.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

/// Counts durations in logarithmic bins; the first and the last also count shorter and longer ones.
class TickHistogram {
public:
    void note(double seconds)
    {
        const double place = std::log10(std::max(seconds, minSeconds) / minSeconds) * binsPerDecade;
        ++_bins[std::min(static_cast<size_t>(place), _bins.size() - 1)];
        ++_count;
        _longest = std::max(_longest, seconds);
    }
    uint64_t count() const { return _count; }
    double longestSeconds() const { return _longest; }
    /// The duration that the part `share`, 0 to 1, does not exceed, to the accuracy of a bin; 0 if none.
    double quantileSeconds(double share) const;
    /// The outline of the bins that begin or end between two durations; x is in seconds.
    std::vector<Chart::Point> outline(double fromSeconds, double toSeconds) const;

private:
    static constexpr size_t binsPerDecade = 24, decades = 8;
    static constexpr double minSeconds = 1e-7;
    static double _beginOf(size_t bin)
    {
        return minSeconds * std::pow(10.0, static_cast<double>(bin) / binsPerDecade);
    }

    std::array<uint64_t, decades * binsPerDecade> _bins{};
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
    /// Notes which devices are connected at the time of the last record; in the order of svg()'s names.
    void notePresence(const std::vector<bool>& isConnected)
    {
        Stretch seen;
        seen.devices = 0;
        for (size_t i = 0; i < std::min<size_t>(isConnected.size(), 64); ++i)
            *seen.devices |= isConnected[i] ? uint64_t{1} << i : 0;
        _stretchAt(_lastSeconds).take(seen);
    }
    /// Adds a remark to the lane of a device, at the time of the last record.
    void remark(size_t device, const std::string& text) { _remarks.push_back({device, _lastSeconds, text}); }

    /// An additional panel with the same time axis.
    struct Panel {
        std::string title;
        double from, to; ///< the range of its values
        const char* unit;
        std::vector<ChartCurve> curves; ///< x as returned by secondsAt()
    };
    void add(Panel panel) { _panels.push_back(std::move(panel)); }
    double secondsAt(uint64_t hostTicks) const { return secondsOf(hostTicks - _beginTicks); }

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
        // A bit for each of the first 64 devices that was connected all the time; null: not noted.
        std::optional<uint64_t> devices;

        void take(const Stretch& next);
    };
    struct Remark {
        size_t device;
        double seconds;
        std::string text;
    };

    Stretch& _stretchAt(double seconds);
    uint32_t _contextsIn(size_t stretch) const;
    ChartAxis _timeAxis() const { return {0.0, std::max(_lastSeconds, 0.001), chartLabel(" s")}; }
    double _x(double seconds) const
    {
        return Chart::left + (Chart::right - Chart::left) * _timeAxis().share(seconds);
    }

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
