#pragma once

#include <atomic>
#include <dxr/simulated.h>
#include <memory>
#include <span>
#include <vector>

/// Records the first channel of a simulated output, and the time of each cycle.
/// Threads:   the sink on the device's IO thread, of one device at a time; the rest on one other.
/// Real time: the sink.
class DemoRecording {
public:
    /// Room for `seconds` at `sampleRate` Hz; then it is full.
    DemoRecording(double sampleRate, double seconds);

    /// This object must outlive the devices that play into it.
    SimulatedSink sink();
    double sampleRate() const noexcept { return _sampleRate; }

    /// Samples without a gap, and when the first was played.
    struct Stretch {
        uint64_t hostTicks;
        std::span<const float> samples;
    };
    /// All samples, in stretches that end where the device disconnected or lost cycles.
    std::vector<Stretch> stretches() const;

private:
    struct Cycle {
        uint64_t hostTicks;
        uint64_t sampleTime; // the device's
        size_t first;        // of _samples
        uint32_t frameCount;
    };
    void _keep(uint64_t sampleTime, uint32_t frameCount, uint32_t channels, const float* samples) noexcept
        CX_REALTIME;

    const double _sampleRate;
    const size_t _maxFrames, _maxCycles;
    const std::unique_ptr<float[]> _samples; // not cleared: pages are allocated as they are written
    const std::unique_ptr<Cycle[]> _cycles;
    // Written by the sink. Cycles below it are complete: its release pairs with the reader's acquire.
    std::atomic<size_t> _cycleCount{0};
};
