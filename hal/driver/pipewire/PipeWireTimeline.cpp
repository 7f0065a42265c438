#include "PipeWireTimeline.h"

#include <cmath>

namespace {

constexpr uint64_t catchingUpNanoseconds = 1'000'000'000;
constexpr uint64_t maxSeconds = 60; // a longer gap in a clock's count means that the clock was reset

/// The number of frames between the starts of two cycles, from the time between them: at least the first
/// cycle's frames, and more only if at least half a cycle is missing.
uint64_t framesByTime(const PipeWireTimeline::Clock& last, const PipeWireTimeline::Clock& now) noexcept
{
    if (now.nanoseconds <= last.nanoseconds)
        return last.frameCount;
    const double seconds = static_cast<double>(now.nanoseconds - last.nanoseconds) * 1e-9;
    const auto frames = static_cast<uint64_t>(std::llround(seconds * last.rate));
    return frames > last.frameCount + last.frameCount / 2 ? frames : last.frameCount;
}

} // namespace

PipeWireTimeline::Step PipeWireTimeline::advance(const Clock& clock) noexcept
{
    if (_isPaused) {
        _isPaused = false;
        _sampleTime += _last.frameCount;
        _last = clock;
        _lostFrames = 0;
        return {_sampleTime, false, false};
    }
    const bool isSameClock = clock.id == _last.id && clock.rate == _last.rate;
    const uint64_t counted = clock.position - _last.position; // wraps to a huge value if the count went back
    const bool isSameMoment = isSameClock && counted == 0 && clock.nanoseconds == _last.nanoseconds;
    if (clock.nanoseconds - _lastLoss > catchingUpNanoseconds)
        _lostFrames = 0;
    if (isSameMoment && _lostFrames >= clock.frameCount) {
        _lostFrames -= clock.frameCount;
        return {_sampleTime, false, true};
    }
    const bool isCounted = isSameClock && counted >= _last.frameCount && counted <= maxSeconds * clock.rate;
    const uint64_t frames = isCounted ? counted : framesByTime(_last, clock);
    const uint64_t lost = frames - _last.frameCount;
    if (lost > 0) {
        _lostFrames += lost;
        _lastLoss = clock.nanoseconds;
    }
    _sampleTime += frames;
    _last = clock;
    return {_sampleTime, lost > 0, false};
}
