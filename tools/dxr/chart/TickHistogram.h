#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// How long something took, how often: counts of durations in bins of equal ratio, 24 to a decade, from a hundred
/// nanoseconds to ten seconds; what is shorter or longer is in the first or last. It does not grow.
/// Threads: one.
class TickHistogram {
public:
    static constexpr size_t binsPerDecade = 24;
    static constexpr size_t binCount = 8 * binsPerDecade;
    static constexpr double shortestSeconds = 1e-7;

    void note(double seconds);
    uint64_t count() const { return _count; }
    double longestSeconds() const { return _longest; }
    uint64_t countIn(size_t bin) const { return _bins[bin]; }
    /// Where a bin begins; of binCount where the last ends.
    static double beginOf(size_t bin);
    /// What `share`, 0 to 1, of all durations do not exceed: to within a bin, and never more than the longest. 0 of none.
    double quantileSeconds(double share) const;

private:
    std::array<uint64_t, binCount> _bins{};
    uint64_t _count = 0;
    double _longest = 0.0;
};
