#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

/// Counts durations in logarithmic bins, 24 to a decade, from 100 ns to 10 s. Durations outside this range
/// are counted in the first or last bin.
/// Threads: one at a time.
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
