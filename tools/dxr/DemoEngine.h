#pragma once

#include <atomic>
#include <dxr/DXRDeviceRunner.h>
#include <memory>
#include <span>
#include <vector>

/// The demo's application: plays on every output what the microphone hears, on the first channel, and on the second a
/// tone that follows from the sample time alone, so that any jump of that is heard. Keeps when each cycle was.
/// Threads:   one; the blocks where the runner calls them.
/// Real time: the blocks.
class DemoEngine {
public:
    static constexpr double sampleRate = 48000.0;  ///< Hz
    static constexpr uint32_t frameCount = 512;    ///< of a cycle
    static constexpr double toneFrequency = 440.0; ///< Hz, of the tone that it plays itself
    static constexpr double toneAmplitude = 0.25;

    /// Keeps the cycles of `seconds`. Throws ToolFailure when cannot create a thread.
    DemoEngine(const CXRef<DXRDevice>& microphone, std::span<const CXRef<DXRDevice>> outputs, double seconds);
    ~DemoEngine() { _runner->stop(); }
    DemoEngine(const DemoEngine&) = delete;
    DemoEngine& operator=(const DemoEngine&) = delete;

    DXRDeviceRunner& runner() const noexcept { return *_runner; }

    struct Cycle {
        uint64_t hostTicks;  ///< when the blocks were called
        uint64_t sampleTime; ///< what they were told
    };
    /// All so far.
    std::span<const Cycle> cycles() const noexcept;
    /// The microphone's peak since the last call, 1.0 being full scale.
    float takePeak() noexcept { return _peak.exchange(0.0F, std::memory_order_relaxed); }

private:
    void _hear(uint64_t sampleTime, const DXRBuffer& buffer) noexcept CX_REALTIME;
    void _play(uint64_t sampleTime, DXRBuffer& buffer) const noexcept CX_REALTIME;

    const CXRef<DXRDeviceRunner> _runner;
    std::vector<float> _heard; // of the cycle under way: the runner calls one block after the other
    const size_t _mostCycles;
    const std::unique_ptr<Cycle[]> _cycles;
    std::atomic<size_t> _cycleCount{0}; // its release hands the cycles before it to cycles()
    std::atomic<float> _peak{0.0F};     // raised by the block, taken by the reader; orders nothing
};
