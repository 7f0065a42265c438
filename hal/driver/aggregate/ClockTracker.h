#pragma once

#include "CXRealtime.h"

#include <cstdint>

/// Estimates a device's clock from the time stamps of its cycles: when a frame is due, how fast frames come.
///
/// A delay-locked loop, as in F. Adriaensen, "Using a DLL to filter time" (2005), but one whose bandwidth
/// falls as what it knows grows: its gains are those of the growing-memory polynomial filter (N. Morrison,
/// "Introduction to Sequential Smoothing and Prediction", 1969; E. Brookner, "Tracking and Kalman Filtering
/// Made Easy", 1998, chapter 7), so that after n stamps it stands where a least-squares fit through all of
/// them would, until its memory has reached what a wandering clock allows. From then on it also follows the
/// rate's own drift. When the stamps show that the clock has moved away faster than the memory can follow,
/// the memory is shortened.
/// Threads:   one at a time.
/// Real time: everything.
class ClockTracker {
public:
    /// A clock of about `nominalRate` frames per second of host time. Nothing is known of it yet.
    explicit ClockTracker(double nominalRate) noexcept;

    enum class Outcome {
        Followed,
        Ignored,       ///< too far from where the clock must be: a late thread, or a burst to catch up
        Resynchronised ///< far off for so long that the clock itself must have stopped, jumped or changed
    };
    /// The device's clock stood at `frame` at `hostNanoseconds`, more or less. Frames only grow.
    Outcome update(uint64_t hostNanoseconds, uint64_t frame) noexcept CX_REALTIME;

    bool isKnown() const noexcept CX_REALTIME { return _count > 0; }
    /// Where the clock stands at a moment, in frames and parts of them.
    double frameAt(double hostNanoseconds) const noexcept CX_REALTIME;
    /// When the clock stood, or will stand, at `frame`, in nanoseconds.
    double timeOf(uint64_t frame) const noexcept CX_REALTIME;
    /// Frames per nominal frame.
    double rateRatio() const noexcept CX_REALTIME { return _nominalPeriod / _period; }
    /// How far stamps usually are from where they should be, in nanoseconds.
    double jitterNanoseconds() const noexcept CX_REALTIME { return _jitter; }

private:
    void _begin(uint64_t host, uint64_t frame, double period) noexcept CX_REALTIME;
    void _follow(double error, double frames) noexcept CX_REALTIME;
    double _doubtBound() const noexcept CX_REALTIME;
    double _weighed(double error) const noexcept CX_REALTIME;
    void _watchForTrend(double error, double frames) noexcept CX_REALTIME;
    Outcome _doubt(uint64_t host, uint64_t frame) noexcept CX_REALTIME;

    const double _nominalPeriod; // nanoseconds per frame
    uint64_t _count = 0;         // of stamps, 0 before the first

    uint64_t _frame = 0;  // of the last stamp that was followed
    double _time = 0.0;   // when it was due
    double _period;       // nanoseconds per frame
    double _change = 0.0; // of the period, per frame
    double _memory = 0.0; // frames
    bool _isWeighing = false;
    double _earliness = 0.0; // nanoseconds, negative

    double _jitter;            // mean distance
    double _trend = 0.0;       // mean of the latest errors, each within its bounds
    double _trendFrames = 0.0; // since the trend was last acted upon

    // Stamps that could not be true: since when, and how many.
    uint32_t _doubtful = 0;
    uint64_t _doubtHost = 0;
    uint64_t _doubtFrame = 0;
    uint64_t _lastDoubtHost = 0;
    uint64_t _lastDoubtFrame = 0;
    uint64_t _firstDoubtHost = 0;
};
