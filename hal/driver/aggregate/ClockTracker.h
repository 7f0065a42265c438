#pragma once

#include "CXRealtime.h"

#include <cstdint>

/// Estimates a device's clock from the time stamps of its cycles: when each frame is due, and the frame rate.
///
/// A delay-locked loop, as in F. Adriaensen, "Using a DLL to filter time" (2005), but with a bandwidth that
/// decreases as more stamps are known. Its gains are those of the growing-memory polynomial filter (N.
/// Morrison, "Introduction to Sequential Smoothing and Prediction", 1969; E. Brookner, "Tracking and Kalman
/// Filtering Made Easy", 1998, chapter 7): after n stamps, the estimate equals a least-squares fit through
/// all of them, until the memory reaches the maximum that a wandering clock allows. From then on the loop
/// also follows the drift of the rate. If the stamps show that the clock deviates faster than the memory can
/// follow, the memory is shortened.
/// Threads:   one at a time.
/// Real time: everything.
class ClockTracker {
public:
    /// Creates a tracker of a clock of about `nominalRate` frames per second of host time, with no stamps
    /// yet.
    explicit ClockTracker(double nominalRate) noexcept;

    enum class Outcome {
        Followed,
        Ignored,       ///< too far from the estimate: a late thread, or a burst of cycles that catches up
        Resynchronised ///< too far for so long that the clock must have stopped, jumped or changed its rate
    };
    /// Adds a stamp: the device's clock was at `frame` at about `hostNanoseconds`. Frames must increase.
    Outcome update(uint64_t hostNanoseconds, uint64_t frame) noexcept CX_REALTIME;

    bool isKnown() const noexcept CX_REALTIME { return _count > 0; }
    /// The clock's position at a time, in frames and fractions of them.
    double frameAt(double hostNanoseconds) const noexcept CX_REALTIME;
    /// When the clock was or will be at `frame`, in nanoseconds.
    double timeOf(uint64_t frame) const noexcept CX_REALTIME;
    /// The estimated rate divided by the nominal rate.
    double rateRatio() const noexcept CX_REALTIME { return _nominalPeriod / _period; }
    /// The usual distance of stamps from the estimate, in nanoseconds.
    double jitterNanoseconds() const noexcept CX_REALTIME { return _jitter; }

private:
    void _begin(uint64_t host, uint64_t frame, double period) noexcept CX_REALTIME;
    void _follow(double error, double frames) noexcept CX_REALTIME;
    double _doubtBound() const noexcept CX_REALTIME;
    double _weighed(double error) const noexcept CX_REALTIME;
    void _watchForTrend(double error, double frames) noexcept CX_REALTIME;
    Outcome _doubt(uint64_t host, uint64_t frame) noexcept CX_REALTIME;

    const double _nominalPeriod; // nanoseconds per frame
    uint64_t _count = 0;         // stamps since the beginning; 0 before the first

    uint64_t _frame = 0;  // of the last stamp that was followed
    double _time = 0.0;   // when it was due
    double _period;       // nanoseconds per frame
    double _change = 0.0; // of the period, per frame
    double _memory = 0.0; // frames
    bool _isWeighing = false;
    double _earliness = 0.0; // of the weighed clock against the estimate: nanoseconds, negative

    double _jitter;            // mean distance of stamps from the estimate, nanoseconds
    double _trend = 0.0;       // mean of the latest errors, each limited
    double _trendFrames = 0.0; // since the memory was last changed because of the trend

    // The latest consecutive stamps outside the bound: their number, and times and frames.
    uint32_t _doubtful = 0;
    uint64_t _doubtHost = 0;
    uint64_t _doubtFrame = 0;
    uint64_t _lastDoubtHost = 0;
    uint64_t _lastDoubtFrame = 0;
    uint64_t _firstDoubtHost = 0;
};
