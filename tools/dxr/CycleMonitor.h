#pragma once

#include <atomic>
#include <cstdint>
#include <dxr/AudioHardware.h>

/// What a device's cycles have been like: how many, what is missing between them, how late they came.
/// Threads:   note…() on the IO thread, noteOverload() on any; the questions on any.
/// Real time: everything.
class CycleMonitor {
public:
    explicit CycleMonitor(double sampleRate) : _sampleRate(sampleRate) {}

    /// Notes a cycle that began at `now`, whose first frame has the sample time of `time`.
    void noteCycle(const AudioTimeStamp* now, const AudioTimeStamp* time, uint32_t frameCount) noexcept
        CX_REALTIME;
    /// Notes that the device has told of lost cycles.
    void noteOverload() noexcept CX_REALTIME;
    /// Starts to count from the next cycle on; until then only isSettled() is of use.
    void beginCounting() noexcept CX_REALTIME { _isCounting.store(true, std::memory_order_relaxed); }

    /// Whether the device runs smoothly by now: many sound servers lose a cycle or two while they connect
    /// things. True after a tenth of a second without a gap, or after a whole second whatever happens.
    bool isSettled() const noexcept CX_REALTIME;
    /// Cycles since the device was started; stands still when it gives no more.
    uint64_t cyclesRun() const noexcept { return _cyclesRun.load(std::memory_order_relaxed); }

    // -- Counted since beginCounting()

    uint64_t cycles() const noexcept { return _cycles.load(std::memory_order_relaxed); }
    uint64_t frames() const noexcept { return _frames.load(std::memory_order_relaxed); }
    /// Jumps of the sample time, and the frames that are missing there.
    uint64_t gaps() const noexcept { return _gaps.load(std::memory_order_relaxed); }
    uint64_t lostFrames() const noexcept { return _lostFrames.load(std::memory_order_relaxed); }
    uint64_t overloads() const noexcept { return _overloads.load(std::memory_order_relaxed); }
    /// The frames of the last cycle.
    uint32_t cycleFrames() const noexcept { return _cycleFrames.load(std::memory_order_relaxed); }
    /// The longest time from a cycle's beginning to its callback.
    double largestLatenessMilliseconds() const noexcept;

private:
    const double _sampleRate;      // Hz
    double _nextSampleTime = -1.0; // of the IO thread

    // Statistics: each has one writer and stands for itself, so nothing orders them.
    std::atomic<bool> _isCounting{false};
    std::atomic<uint64_t> _cyclesRun{0}, _framesRun{0}, _framesSinceGap{0};
    std::atomic<uint64_t> _cycles{0}, _frames{0}, _gaps{0}, _lostFrames{0}, _overloads{0},
        _largestLateness{0};
    std::atomic<uint32_t> _cycleFrames{0};
};
