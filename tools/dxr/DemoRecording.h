#pragma once

#include <array>
#include <atomic>
#include <dxr/simulated.h>
#include <memory>
#include <span>
#include <vector>

/// What a simulated output plays, kept to be looked at and measured: two channels, and when each cycle was.
/// Threads:   the sink on the device's IO thread, of one device at a time; the rest on one other.
/// Real time: the sink.
class DemoRecording {
public:
    static constexpr size_t channelCount = 2;
    using Frame = std::array<float, channelCount>;

    /// Room for `seconds` of a device at `sampleRate` Hz; what comes later is not kept.
    DemoRecording(double sampleRate, double seconds);

    /// Keeps what it is given. This object must outlive the devices that have it.
    SimulatedSink sink();

    double sampleRate() const noexcept { return _sampleRate; }
    /// The peak of all channels since the last call, 1.0 being full scale.
    float takePeak() noexcept { return _peak.exchange(0.0F, std::memory_order_relaxed); }

    /// One cycle: `frameCount` frames from `frame` of frames() on, played at `hostTicks`.
    struct Cycle {
        uint64_t hostTicks;
        uint64_t sampleTime; ///< the device's
        size_t frame;
        uint32_t frameCount;
    };
    std::span<const Cycle> cycles() const noexcept;
    std::span<const Frame> frames() const noexcept;

    /// Unbroken frames, all of one plugging-in, and when they began.
    struct Stretch {
        uint64_t hostTicks;
        std::span<const Frame> frames;
    };
    /// What was played, cut where the device was gone or lost cycles.
    std::vector<Stretch> stretches() const;
    /// Frames that are missing between its cycles while it was plugged in.
    uint64_t lostFrames() const;

private:
    void _keep(uint64_t sampleTime, uint32_t frameCount, uint32_t channels, const float* samples) noexcept
        CX_REALTIME;

    const double _sampleRate;
    const size_t _maxFrames, _mostCycles;
    const std::unique_ptr<Frame[]> _frames; // not cleared: memory comes with what is written
    const std::unique_ptr<Cycle[]> _cycles;
    // The writer's. What is before _cycleCount is not written again: its release hands it to readers' acquire.
    std::atomic<size_t> _cycleCount{0};
    std::atomic<float> _peak{0.0F}; // raised by the writer, taken by the reader; orders nothing
};
