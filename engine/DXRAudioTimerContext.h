#pragma once

#include "CXDispatchTimer.h"
#include "DXRAudioContext.h"
#include "auclock.h"

#include <memory>

/// Keeps calling the IO blocks of a runner while none of its devices is connected: from a timer on the
/// runner's queue, at the runner's frame count and rate, by default 512 frames at 44100 Hz. Inputs receive
/// silence, outputs are discarded, and the sample time continues.
/// Threads:   as DXRAudioContext; cycles run on the queue's thread.
/// Real time: a cycle.
class DXR_EXPORT DXRAudioTimerContext final : public DXRAudioContext {
public:
    static CXRef<DXRAudioTimerContext> initWithIO(RunnerIO& io, const CXRef<CXObject>& runner,
                                                  const DXRDeviceNodes& nodes);

    DXRCycleRecord::Context kind() const noexcept override { return DXRCycleRecord::Context::Timer; }
    bool start() override;
    void stop() override;

protected:
    const char* className() const override { return "DXRAudioTimerContext"; }
    bool _frameCount(uint32_t* frameCount) const override;
    bool _sampleRate(double* sampleRate) const override;

private:
    struct ClockDeleter {
        void operator()(auclock* clock) const noexcept { auclock_destroy(clock); }
    };

    using DXRAudioContext::DXRAudioContext;
    ~DXRAudioTimerContext() override = default;

    void _fire();
    using DXRAudioContext::_performIO;
    void _performIO(uint64_t sampleTime) noexcept CX_REALTIME;
    void _performTraced(DXRCycleTrace& trace, uint64_t sampleTime, uint64_t beginTicks) noexcept CX_REALTIME;

    uint32_t _frames = 0;                          // frames of a cycle
    double _rate = 0.0;                            // Hz
    std::unique_ptr<auclock, ClockDeleter> _clock; // converts between host time and sample time
    CXRef<CXDispatchTimer> _timer;                 // null while stopped

    uint64_t _framesElapsed = 0;
    uint64_t _discontinuityThreshold = 0; // frames after which late timer calls are logged
    uint64_t _nextSampleTime = 0;         // of the next cycle
};
