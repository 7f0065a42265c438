#pragma once

#include "CXDispatchTimer.h"
#include "DXRAudioContext.h"
#include "auclock.h"

#include <memory>

/// Keeps the IO blocks of a runner going while none of its devices is there: from a timer on the runner's queue, at the
/// runner's frame count and rate, or 512 frames at 44100 Hz. Inputs hear silence, outputs are not heard, and the sample
/// time goes on.
/// Threads:   as DXRAudioContext; cycles are on the queue's thread.
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

    uint32_t _frames = 0;                          // of a cycle
    double _rate = 0.0;                            // Hz
    std::unique_ptr<auclock, ClockDeleter> _clock; // from host time to sample time
    CXRef<CXDispatchTimer> _timer;                 // null while stopped

    uint64_t _framesElapsed = 0;
    uint64_t _discontinuityThreshold = 0; // frames that pass before a late fire is worth a line in the log
    uint64_t _nextSampleTime = 0;         // of the next cycle
};
