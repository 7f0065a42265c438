#include "DXRAudioTimerContext.h"

#include "CXErrorAdditions.h"
#include "HostClock.h"
#include "LogSink.h"
#include "RunnerIO.h"
#include "autimebase.h"

#include <cinttypes>
#include <cstdio>

namespace {

constexpr uint32_t defaultFrameCount = 512;
constexpr double defaultSampleRate = 44100.0;

} // namespace

CXRef<DXRAudioTimerContext> DXRAudioTimerContext::initWithIO(RunnerIO& io, const CXRef<CXObject>& runner,
                                                             const DXRDeviceNodes& nodes)
{
    return CXRef<DXRAudioTimerContext>::adopt(new DXRAudioTimerContext(io, runner, nodes, {}, {}));
}

bool DXRAudioTimerContext::start()
{
    CX_ASSERT_ON_QUEUE(_queue);
    CX_ASSERT_SAYING(!_timer, "_timer == nil");
    _frames = _io.frameCount.value() != 0 ? _io.frameCount.value() : defaultFrameCount;
    _rate = _io.sampleRate.value() != 0.0 ? _io.sampleRate.value() : defaultSampleRate;
    _framesElapsed = 0;
    // About one second of frames, deliberately not rounded to cycles: the first timer calls may be irregular.
    const double frames = _frames;
    _discontinuityThreshold = static_cast<uint64_t>((_rate + (frames - 1)) / frames * frames);
    _clock.reset(auclock_create(autimebase_abstime(), _io.sampleTime, _rate));
    _timer = CXDispatchTimer::init();
    CX_ASSERT(_clock && _timer);
    _timer->setTimeoutHandler([weak = CXWeak(*this)](const CXRef<CXDispatchTimer>&) {
        if (const CXRef<DXRAudioTimerContext> self = weak.lock())
            self->_fire();
    });
    const uint64_t now = auclock_abstime_to_sampletime(_clock.get(), autimebase_abstime());
    _nextSampleTime = _frames * (now / _frames + 1);
    _timer->setDispatchQueue(_queue);
    _timer->setTimeoutAbsolute(auclock_sampletime_to_abstime(_clock.get(), _nextSampleTime), 0);
    if (_startIO())
        return true;
    stop();
    return false;
}

void DXRAudioTimerContext::stop()
{
    CX_ASSERT_ON_QUEUE(_queue);
    if (!_timer)
        return;
    _timer->cancel();
    _timer = nullptr;
    _clock.reset();
    _stopIO();
}

bool DXRAudioTimerContext::_frameCount(uint32_t* frameCount) const
{
    *frameCount = _frames;
    return true;
}

bool DXRAudioTimerContext::_sampleRate(double* sampleRate) const
{
    *sampleRate = _rate;
    return true;
}

void DXRAudioTimerContext::_fire()
{
    const uint64_t beginTicks = autimebase_abstime();
    const uint64_t now = auclock_abstime_to_sampletime(_clock.get(), beginTicks);
    const uint64_t cycle = now - now % _frames;
    if (_framesElapsed > _discontinuityThreshold && cycle != _nextSampleTime) {
        const auto difference = [](uint64_t a, uint64_t b) { return static_cast<int64_t>(a - b); };
        char text[200];
        std::snprintf(text, sizeof text,
                      ": Timer clock discontinuity: %" PRIu64 " -> %" PRIu64 " (%" PRId64 "), %" PRIu64
                      " -> %" PRIu64 " (%" PRId64 ")\n",
                      _nextSampleTime, cycle, difference(cycle, _nextSampleTime), _nextSampleTime, now,
                      difference(now, _nextSampleTime));
        dxr::LogSink::log(description() + text);
    }
    _framesElapsed += _frames;
    _nextSampleTime = cycle + _frames;
    const CXRealtimeScope realtime;
    _timer->setTimeoutAbsolute(auclock_sampletime_to_abstime(_clock.get(), _nextSampleTime), 0);
    if (DXRCycleTrace* const trace = _io.trace.get())
        _performTraced(*trace, cycle, beginTicks);
    else
        _performIO(cycle);
    const bool isLate = autimebase_abstime() > auclock_sampletime_to_abstime(_clock.get(), _nextSampleTime);
    _io.noteCycle(isLate, 0);
}

void DXRAudioTimerContext::_performTraced(DXRCycleTrace& trace, uint64_t sampleTime,
                                          uint64_t beginTicks) noexcept
{
    DXRCycleRecord traced = _io.record(kind(), kAudioObjectUnknown);
    traced.frameCount = traced.runnerFrameCount = _frames;
    traced.sampleTime = traced.deviceSampleTime = sampleTime;
    traced.dueTicks = auclock_sampletime_to_abstime(_clock.get(), sampleTime);
    traced.deadlineTicks = auclock_sampletime_to_abstime(_clock.get(), _nextSampleTime);
    traced.beginTicks = beginTicks;
    traced.blocksBeginTicks = dxr::HostClock::nowTicks();
    _performIO(sampleTime);
    traced.endTicks = dxr::HostClock::nowTicks();
    trace.write(traced);
}

void DXRAudioTimerContext::_performIO(uint64_t sampleTime) noexcept
{
    // The times a device would report: input was captured one cycle ago, output is played after this cycle.
    const uint64_t now = auclock_sampletime_to_abstime(_clock.get(), sampleTime);
    const uint64_t next = auclock_sampletime_to_abstime(_clock.get(), sampleTime + _frames);
    const uint64_t hostTimes[2] = {now - (next - now), next};
    for (size_t direction = 0; direction < 2; ++direction) {
        for (const CXRef<DXRDeviceNode>& node : _nodes[direction])
            node->performIOWithSampleTime(sampleTime, nullptr, hostTimes[direction]);
    }
    _io.setSampleTime(sampleTime + _frames);
}
