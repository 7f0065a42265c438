#pragma once

#include <atomic>
#include <dxr/simulated.h>
#include <memory>
#include <span>
#include <vector>

/// What a simulated output plays on its first channel, kept to be measured, and when each cycle was.
/// Threads:   the sink on the device's IO thread, of one device at a time; the rest on one other.
/// Real time: the sink.
class DemoRecording {
public:
    /// Room for `seconds` of a device at `sampleRate` Hz; what comes later is not kept.
    DemoRecording(double sampleRate, double seconds);

    /// Keeps what it is given. This object must outlive the devices that have it.
    SimulatedSink sink();
    double sampleRate() const noexcept { return _sampleRate; }

    /// Unbroken samples, all of one plugging-in, and when they began.
    struct Stretch {
        uint64_t hostTicks;
        std::span<const float> samples;
    };
    /// What was played, cut where the device was gone or lost cycles.
    std::vector<Stretch> stretches() const;

private:
    /// Samples from `first` on, played at `hostTicks`.
    struct Cycle {
        uint64_t hostTicks;
        uint64_t sampleTime; // the device's
        size_t first;
        uint32_t frameCount;
    };
    void _keep(uint64_t sampleTime, uint32_t frameCount, uint32_t channels, const float* samples) noexcept
        CX_REALTIME;

    const double _sampleRate;
    const size_t _maxFrames, _maxCycles;
    const std::unique_ptr<float[]> _samples; // not cleared: memory comes with what is written
    const std::unique_ptr<Cycle[]> _cycles;
    // The writer's. What is before it is not written again: its release hands it to the reader's acquire.
    std::atomic<size_t> _cycleCount{0};
};
