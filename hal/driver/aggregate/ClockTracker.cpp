#include "ClockTracker.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

constexpr double second = 1e9; // nanoseconds

// The memory: enough at first that two late stamps do not look like another rate, at most what leaves a
// temperature's wander (20 ppm in ten minutes) within a fraction of a frame.
constexpr double firstMemorySeconds = 0.1;
constexpr double memoryGrowth = 0.45; // a memory of everything would keep what the first stamps got wrong
constexpr double settledMemorySeconds = 10.0;
constexpr double maxMemorySeconds = 40.0;
constexpr double muchJitter = 20e3;         // nanoseconds
constexpr double driftMemorySeconds = 16.0; // from here on the rate's own drift stands out from noise
constexpr double parabolaMemory = 2.25; // a parabola through so many times the stamps is as certain as a line

constexpr double firstJitter = 100e3; // nanoseconds
constexpr double minJitter = 500.0;
constexpr double jitterSeconds = 2.0; // over which it is averaged

// A stamp that is late says little, for threads wake late by very different times; none is early by much. So
// early ones weigh more, and late ones count no more than one that is late by twice the usual jitter. Where
// lateness is distributed exponentially that leaves less than half of the mean's noise, and costs 1.4 times
// it for symmetric noise.
constexpr double weighingSeconds = 0.7; // from when on the errors are those of stamps
constexpr double earlyWeight = 3.0;
constexpr double lateWeight = 1.0 / 3.0;
constexpr double maxEarly = 4.0; // jitters
constexpr double maxLate = 2.0;
constexpr double minDoubt = 3e6; // nanoseconds; what is nearer is never called wrong
constexpr double doubtJitters = 20.0;
constexpr double maxOtherRate = 0.4; // of the rate it had: further off, a device cannot go
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
        2.0 * maxEarly * _jitter; // so that one wild stamp does not open the door to others
    _jitter = std::max(minJitter, _jitter + share * (std::min(std::abs(error), tolerated) - _jitter));

    // The less the stamps lie, the less of them it takes, and the sooner a change is seen.
    const double needed = maxMemorySeconds * _jitter / muchJitter;
    const double maxMemory =
        std::clamp(needed, settledMemorySeconds, maxMemorySeconds) * second / _nominalPeriod;
    _memory = std::min(_memory + memoryGrowth * frames, maxMemory);
    const double memorySeconds = _memory * _nominalPeriod / second;
    const double n = std::max(2.0, _memory / frames);
    // At the very first a large error is the rate's, not the stamp's.
    const double bound = memorySeconds < firstMemorySeconds ? minDoubt : maxEarly * _jitter;
    double weighed = std::clamp(error, -bound, bound);
    if (_isWeighing) {
        weighed = _weighed(error);
    } else {
        // Weighing takes the earlier stamps for the truth. How much earlier they are is found out first, so
        // that the line is moved there and not bent.
        _earliness += std::min(0.5, 3.0 / (n + 1.0)) * _weighed(error - _earliness);
        if (memorySeconds >= weighingSeconds) {
            _isWeighing = true;
            _time += _earliness;
            weighed = 0.0;
        }
    }
    // The first stamps say where the clock is, but next to nothing about its rate.
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
    // The mean of n errors is uncertain by their size over the root of n.
    const double certain = trendJitters * _jitter * std::sqrt(std::min(1.0, share)) + minTrend;
    const double perSecond = second / _nominalPeriod; // frames
    if (std::abs(_trend) > 4.0 * certain && _memory > perSecond) {
        // Another rate altogether: begin to learn it again, from where the clock is.
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
    // What the stamps say of the rate, they say only of a time without another stall or jump in it.
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
    // They agree with each other. At the old rate: the clock has paused or jumped. At another one that a
    // device can have: its rate was changed, or was never what it said. Otherwise it is catching up: wait for
    // the end.
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
