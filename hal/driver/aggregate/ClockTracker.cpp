#include "ClockTracker.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

constexpr double second = 1e9; // nanoseconds

// The memory. Its minimum prevents two late stamps from looking like another rate; its maximum keeps the
// error from temperature drift (20 ppm in ten minutes) below a fraction of a frame.
constexpr double firstMemorySeconds = 0.1;
constexpr double memoryGrowth = 0.45; // less than 1: errors of the first stamps are forgotten
constexpr double settledMemorySeconds = 10.0;
constexpr double maxMemorySeconds = 40.0;
constexpr double muchJitter = 20e3;         // nanoseconds
constexpr double driftMemorySeconds = 16.0; // from here on the rate's drift exceeds the noise
constexpr double parabolaMemory = 2.25; // with so many times the stamps, a parabola is as certain as a line

constexpr double firstJitter = 100e3; // nanoseconds
constexpr double minJitter = 500.0;
constexpr double jitterSeconds = 2.0; // averaging time

// A late stamp says little, because threads wake late by very different times; no stamp is early by much. So
// early stamps have more weight, and late stamps are limited to twice the usual jitter. If lateness is
// distributed exponentially, less than half of the mean's noise is left; symmetric noise becomes 1.4 times
// larger.
constexpr double weighingSeconds = 0.7; // memory from which on errors are errors of stamps, not of the rate
constexpr double earlyWeight = 3.0;
constexpr double lateWeight = 1.0 / 3.0;
constexpr double maxEarly = 4.0; // jitters
constexpr double maxLate = 2.0;
constexpr double minDoubt = 3e6; // nanoseconds; smaller errors are never doubted
constexpr double doubtJitters = 20.0;
constexpr double maxOtherRate = 0.4; // of the previous rate; no device changes by more
constexpr double trendSeconds = 1.5;
constexpr double trendJitters = 10.0;
constexpr double minTrend = 1000.0; // nanoseconds

} // namespace

ClockTracker::ClockTracker(double nominalRate) noexcept
    : _nominalPeriod(second / nominalRate), _period(_nominalPeriod), _jitter(firstJitter)
{}

void ClockTracker::_begin(uint64_t host, uint64_t frame, double period) noexcept
{
    _count = 1;
    _frame = frame;
    _time = static_cast<double>(host);
    _period = period;
    _change = 0.0;
    _memory = 0.0;
    _jitter = std::max(_jitter, firstJitter);
    _trend = 0.0;
    _trendFrames = 0.0;
    _doubtful = 0;
    _isWeighing = false;
    _earliness = 0.0;
}

ClockTracker::Outcome ClockTracker::update(uint64_t hostNanoseconds, uint64_t frame) noexcept
{
    if (_count == 0) {
        _begin(hostNanoseconds, frame, _nominalPeriod);
        return Outcome::Followed;
    }
    const double frames = static_cast<double>(frame - _frame);
    if (frame <= _frame)
        return Outcome::Ignored;
    const double due = _time + frames * (_period + 0.5 * frames * _change);
    const double error = static_cast<double>(hostNanoseconds) - due;
    if (std::abs(error) > _doubtBound())
        return _doubt(hostNanoseconds, frame);
    _doubtful = 0;
    ++_count;
    _frame = frame;
    _time = due;
    _period += frames * _change;
    _follow(error, frames);
    return Outcome::Followed;
}

void ClockTracker::_follow(double error, double frames) noexcept
{
    const double perSecond = second / (frames * _nominalPeriod);
    const double share = std::min(1.0, 1.0 / (jitterSeconds * perSecond) + 1.0 / static_cast<double>(_count));
    const double tolerated =
        2.0 * maxEarly * _jitter; // limited, so that one wild stamp does not widen the bound for others
    _jitter = std::max(minJitter, _jitter + share * (std::min(std::abs(error), tolerated) - _jitter));

    // The smaller the jitter, the shorter the memory needed, and the sooner a change is detected.
    const double needed = maxMemorySeconds * _jitter / muchJitter;
    const double maxMemory =
        std::clamp(needed, settledMemorySeconds, maxMemorySeconds) * second / _nominalPeriod;
    _memory = std::min(_memory + memoryGrowth * frames, maxMemory);
    const double memorySeconds = _memory * _nominalPeriod / second;
    const double n = std::max(2.0, _memory / frames);
    // At the beginning a large error is an error of the rate, not of the stamp.
    const double bound = memorySeconds < firstMemorySeconds ? minDoubt : maxEarly * _jitter;
    double weighed = std::clamp(error, -bound, bound);
    if (_isWeighing) {
        weighed = _weighed(error);
    } else {
        // Weighing moves the clock towards the early stamps. The distance is measured first and then added to
        // the position at once, so that it does not change the rate.
        _earliness += std::min(0.5, 3.0 / (n + 1.0)) * _weighed(error - _earliness);
        if (memorySeconds >= weighingSeconds) {
            _isWeighing = true;
            _time += _earliness;
            weighed = 0.0;
        }
    }
    // The first stamps determine the clock's position, but hardly its rate.
    if (memorySeconds < driftMemorySeconds) {
        const double m = n + firstMemorySeconds * perSecond;
        _time += 2.0 * (2.0 * n - 1.0) / (n * (n + 1.0)) * weighed;
        _period += 6.0 / (m * (m + 1.0)) * weighed / frames;
    } else {
        const double m = parabolaMemory * n;
        const double cube = m * (m + 1.0) * (m + 2.0);
        _time += 3.0 * (3.0 * m * m - 3.0 * m + 2.0) / cube * weighed;
        _period += 18.0 * (2.0 * m - 1.0) / cube * weighed / frames;
        _change += 60.0 / cube * weighed / (frames * frames);
    }
    _watchForTrend(weighed, frames);
}

double ClockTracker::_doubtBound() const noexcept
{
    return std::max(minDoubt, doubtJitters * _jitter);
}

double ClockTracker::_weighed(double error) const noexcept
{
    return error < 0.0 ? earlyWeight * std::max(error, -maxEarly * _jitter)
                       : lateWeight * std::min(error, maxLate * _jitter);
}

void ClockTracker::_watchForTrend(double error, double frames) noexcept
{
    const double share = frames * _nominalPeriod / (trendSeconds * second);
    _trend += std::min(1.0, share) * (error - _trend);
    _trendFrames += frames;
    // The uncertainty of the mean of n errors is their size divided by the square root of n.
    const double certain = trendJitters * _jitter * std::sqrt(std::min(1.0, share)) + minTrend;
    const double perSecond = second / _nominalPeriod; // frames
    if (std::abs(_trend) > 4.0 * certain && _memory > perSecond) {
        // An entirely different rate: learn it again, from the present position.
        _memory = firstMemorySeconds * perSecond;
        _change = 0.0;
        _isWeighing = false;
        _earliness = 0.0;
        _trend = 0.0;
        _trendFrames = 0.0;
    } else if (std::abs(_trend) > certain && _trendFrames > 2.0 * trendSeconds * perSecond) {
        _memory = std::min(_memory, std::max(_memory / 4.0, trendSeconds * perSecond));
        _trendFrames = 0.0;
    }
}

ClockTracker::Outcome ClockTracker::_doubt(uint64_t host, uint64_t frame) noexcept
{
    // Stamps can show a rate only if no further stall or jump is among them.
    const double sinceLast = static_cast<double>(host - std::exchange(_lastDoubtHost, host));
    const double due = static_cast<double>(frame - std::exchange(_lastDoubtFrame, frame)) * _period;
    const bool isNew = _doubtful == 0;
    const bool isBroken = std::abs(sinceLast - due) > std::max(_doubtBound(), maxOtherRate * due);
    if (isNew)
        _firstDoubtHost = host;
    if (isNew || isBroken) {
        _doubtful = 1;
        _doubtHost = host;
        _doubtFrame = frame;
    } else {
        ++_doubtful;
    }
    const double elapsed = static_cast<double>(host - _doubtHost);
    const double frames = static_cast<double>(frame - _doubtFrame);
    const bool isEnough = static_cast<double>(host - _firstDoubtHost) > 3.0 * second;
    if (!isEnough && (_doubtful < 8 || elapsed < 0.1 * second))
        return Outcome::Ignored;
    // The stamps agree with each other. At the old rate, the clock has paused or jumped. At another plausible
    // rate, the device's rate was changed or was never the nominal one. Otherwise the device is catching up:
    // wait until it has.
    const double period = elapsed / frames;
    const double against = period / _period;
    const bool isOldRate = std::abs(against - 1.0) < 0.01;
    const bool isNewRate = std::abs(against - 1.0) < maxOtherRate && elapsed > 0.4 * second;
    if (isOldRate || isNewRate || isEnough) {
        _begin(host, frame, isOldRate ? _period : isNewRate ? period : _nominalPeriod);
        return Outcome::Resynchronised;
    }
    if (elapsed > 0.5 * second) {
        _doubtful = 1;
        _doubtHost = host;
        _doubtFrame = frame;
    }
    return Outcome::Ignored;
}

double ClockTracker::frameAt(double hostNanoseconds) const noexcept
{
    return static_cast<double>(_frame) + (hostNanoseconds - _time) / _period;
}

double ClockTracker::timeOf(uint64_t frame) const noexcept
{
    return _time + static_cast<double>(static_cast<int64_t>(frame - _frame)) * _period;
}
