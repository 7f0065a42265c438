#include "DriftController.h"

#include <algorithm>
#include <cmath>

namespace {

// The bandwidth of the loop that corrects the reading rate, in radians per second: 3 / t, with a minimum that
// follows a clock which drifts by 20 ppm in ten minutes to a fraction of a frame.
constexpr double narrowing = 3.0;
constexpr double widestSeconds = 0.3;
constexpr double narrowest = 0.15;
constexpr double damping = 0.9;
constexpr double maxPull = 2e-3; // of the rate: a hundred frames a second, or three cents

// How late threads may be, in addition to their cycles.
constexpr double minMargin = 32.0; // frames
constexpr double maxMarginSeconds = 0.005;
constexpr double shortagesApartSeconds = 10.0; // shortages closer together show that the margin is too small
constexpr double sparedFrames = 8.0;           // added to the missing frames when the margin grows

constexpr double minJump = 24.0; // frames; smaller errors are corrected by the rate
constexpr double maxJump = 480.0;
constexpr uint64_t maxGapFrames = 1U << 20; // a longer gap in the sample time is a clock set to a new time

double marginFor(const DriftController::Settings& settings, double longerCycle)
{
    // At most a cycle, together with the resampler's look-ahead.
    const double usual = longerCycle - settings.framesAfter;
    return std::max(minMargin, std::min(usual, maxMarginSeconds * settings.writerRate));
}

} // namespace

DriftController::DriftController(const Settings& settings) noexcept
    : _settings(settings), _nominalRatio(settings.writerRate / settings.readerRate),
      _writer(settings.writerRate), _reader(settings.readerRate)
{
    _walk.step = _nominalRatio;
}

void DriftController::wrote(const WriterCycle& cycle) noexcept
{
    const uint64_t offset = cycle.ringFrame - cycle.frame;
    const bool isNew = !_writer.isKnown() || offset != _ringOffset || cycle.frameCount > _writerFrames;
    _ringOffset = offset;
    _writerFrames = std::max(_writerFrames, cycle.frameCount);
    if (_writer.update(cycle.hostNanoseconds, cycle.frame) == ClockTracker::Outcome::Resynchronised) {
        _seconds = 0.0;
        _mustBegin = true;
    }
    _mustBegin = _mustBegin || isNew;
}

ReadPlan DriftController::plan(uint64_t hostNanoseconds, uint64_t sampleTime, uint32_t frameCount,
                               uint64_t firstFrame, uint64_t endFrame) noexcept
{
    const uint64_t gap = sampleTime - _nextSampleTime;
    if (_hasRead && gap > 0 && gap < maxGapFrames) // time has passed during the lost cycles
        _walk = _walk.after(static_cast<uint32_t>(gap));
    _hasRead = true;
    _nextSampleTime = sampleTime + frameCount;
    if (_reader.update(hostNanoseconds, _nextSampleTime) == ClockTracker::Outcome::Resynchronised) {
        _seconds = 0.0;
        _mustBegin = true;
    }
    if (frameCount > _readerFrames) {
        _readerFrames = frameCount;
        _mustBegin = true;
    }
    ReadPlan plan;
    plan.silentFrames = frameCount;
    plan.releasedFrame = firstFrame;
    if (!_writer.isKnown())
        return plan;

    const double target = _writer.frameAt(_reader.timeOf(_nextSampleTime)) - delay();
    double error = _error(target);
    if (_mustBegin || _mustJump(error, frameCount, endFrame)) {
        _resynchronisations += _hasSounded ? 1 : 0;
        plan.isJump = true;
        _isRunning = true;
        _mustBegin = false;
        _place(target);
        error = 0.0;
    }
    _steer(error, frameCount);
    _level = static_cast<double>(static_cast<int64_t>(endFrame - _walk.frame)) - _walk.fraction;
    _fit(plan, frameCount, firstFrame, endFrame);
    _noteShortage(plan, frameCount, endFrame);
    _walk = _walk.after(frameCount);
    const uint64_t needed = _walk.frame - _settings.framesBefore;
    const auto passed = static_cast<int64_t>(needed - firstFrame);
    plan.releasedFrame =
        firstFrame +
        static_cast<uint64_t>(std::clamp(passed, int64_t{0}, static_cast<int64_t>(endFrame - firstFrame)));
    return plan;
}

double DriftController::delayFor(const Settings& settings, uint32_t writerFrames,
                                 uint32_t readerFrames) noexcept
{
    const double cycles = readerFrames * settings.writerRate / settings.readerRate;
    return writerFrames + cycles + settings.framesAfter +
           marginFor(settings, std::max<double>(writerFrames, cycles));
}

double DriftController::_longerCycle() const noexcept
{
    return std::max<double>(_writerFrames, _readerFrames * _nominalRatio);
}

double DriftController::_margin() const noexcept
{
    return marginFor(_settings, _longerCycle()) + _extraMargin;
}

double DriftController::delay() const noexcept
{
    return delayFor(_settings, _writerFrames, _readerFrames) + _extraMargin;
}

double DriftController::_wantedRatio() const noexcept
{
    return _nominalRatio * clockRatio();
}

double DriftController::_error(double target) const noexcept
{
    return target - static_cast<double>(static_cast<int64_t>(_walk.frame - _ringOffset)) - _walk.fraction;
}

bool DriftController::_mustJump(double error, uint32_t frameCount, uint64_t endFrame) const noexcept
{
    if (_settings.compensates)
        return std::abs(error) > std::clamp(delay() / 4.0, minJump, maxJump);
    // If the clocks differ after all, reading drifts until frames are missing or too many are buffered.
    const CompensatingResampler::Walk end = _walk.after(frameCount);
    const auto lacking = static_cast<int64_t>(end.frame + _settings.framesAfter - endFrame);
    return (error < 0.0 && lacking > 0 && _hasSounded && -error > _margin()) || error > _longerCycle();
}

void DriftController::_place(double target) noexcept
{
    const double whole = std::floor(target);
    _walk.frame = static_cast<uint64_t>(static_cast<int64_t>(whole)) + _ringOffset;
    _walk.fraction = _settings.compensates ? target - whole : 0.0;
    if (_seconds == 0.0 && _settings.compensates)
        _walk.step = _wantedRatio();
}

void DriftController::_steer(double error, uint32_t frameCount) noexcept
{
    const double elapsed = frameCount / _settings.readerRate;
    _walk.stepChange = 0.0;
    _seconds += elapsed;
    _sinceShortage += elapsed;
    if (!_settings.compensates || frameCount == 0)
        return;
    const double width = std::max(narrowest, narrowing / (_seconds + widestSeconds));
    const double wanted = _wantedRatio();
    // Limits the stiffness to what updates once per cycle can follow.
    const double stiffness = std::min(width * elapsed, 0.5);
    const double pull =
        stiffness * (width * error / _settings.readerRate + 2.0 * damping * (wanted - _walk.step));
    const double limit = maxPull * wanted;
    const double next = std::clamp(_walk.step + pull, wanted - limit, wanted + limit);
    _walk.stepChange = (next - _walk.step) / frameCount;
}

void DriftController::_fit(ReadPlan& plan, uint32_t frameCount, uint64_t firstFrame,
                           uint64_t endFrame) const noexcept
{
    const auto framesTo = [this](uint64_t frame) { // output frames before a position is reached
        const double distance =
            static_cast<double>(static_cast<int64_t>(frame - _walk.frame)) - _walk.fraction;
        return std::ceil(distance / _walk.step);
    };
    const auto within = [frameCount](double frames) {
        return static_cast<uint32_t>(std::clamp(frames, 0.0, static_cast<double>(frameCount)));
    };
    // The step changes by parts per million within a cycle, which moves no position by a whole frame.
    const double slack = _walk.stepChange == 0.0 ? 0.0 : 1.0;
    plan.silentFrames = within(framesTo(firstFrame + _settings.framesBefore));
    uint32_t end = within(framesTo(endFrame - _settings.framesAfter));
    const CompensatingResampler::Walk last = _walk.after(end > 0 ? end - 1 : 0);
    if (end > 0 && static_cast<int64_t>(last.frame + _settings.framesAfter - endFrame) >= 0)
        end -= static_cast<uint32_t>(slack);
    plan.frameCount = end > plan.silentFrames ? end - plan.silentFrames : 0;
    plan.walk = _walk.after(plan.silentFrames);
}

void DriftController::_noteShortage(const ReadPlan& plan, uint32_t frameCount, uint64_t endFrame) noexcept
{
    const uint32_t served = plan.frameCount;
    if (served == frameCount) {
        _hasSounded = true;
        // A shortage that was not a stall, soon after another one: the margin is too small for this computer.
        if (_shortage > 0.0 && _shortage <= _longerCycle() && _sinceShortage < shortagesApartSeconds &&
            _extraMargin < _longerCycle()) {
            _extraMargin = std::min(_extraMargin + _shortage + sparedFrames, _longerCycle());
            _mustBegin = true;
        }
        if (_shortage > 0.0)
            _sinceShortage = 0.0;
        _shortage = 0.0;
        return;
    }
    if (!_hasSounded)
        return;
    _lostFrames += frameCount - served;
    const CompensatingResampler::Walk end = _walk.after(frameCount);
    _shortage = std::max(
        _shortage, static_cast<double>(static_cast<int64_t>(end.frame + _settings.framesAfter - endFrame)));
}
