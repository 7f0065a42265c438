#pragma once

#include "AudioRun.h"
#include "ChannelCopy.h"
#include "LevelMeter.h"

/// Carries a device's input to a device's output. Two devices meet in a ring: the input's IO thread writes
/// it, the output's reads it. No frame is lost as long as no cycle is and both clocks agree; with clocks that
/// drift apart, a jump now and then keeps the delay, and is counted.
///
/// How the two start: both run idle until they are settled. From the first output cycle after that, input is
/// kept, and output begins when the ring holds a cycle of each device and a margin, which is a further cycle
/// or 10 ms: so much may the input come late, for one time, before anything is missed. Threads:   the
/// callbacks on their devices' IO threads, the rest on one other. Real time: the callbacks.
class AudioLoop final : public CXObject {
public:
    /// The devices run at the same rate, and may be the same device.
    static CXRef<AudioLoop> initWithDevices(const DeviceReport& input, const DeviceReport& output);

    /// Adds the callbacks to `run`. Throws ToolFailure.
    void addTo(AudioRun& run);

    /// Whether sound passes, or has.
    bool isFlowing() const noexcept { return _isFlowing.load(std::memory_order_relaxed); }
    bool hasRing() const noexcept { return _hasTwoDevices; }
    /// Frames that the ring delays by, when the next cycles are as the last were.
    uint64_t ringLatencyFrames() const noexcept;
    /// Frames that went from input to output.
    uint64_t framesMoved() const noexcept { return _framesMoved.load(std::memory_order_relaxed); }
    /// How often the ring ran dry, and the frames of silence that were played instead.
    uint64_t underruns() const noexcept { return _underruns.load(std::memory_order_relaxed); }
    uint64_t underrunFrames() const noexcept { return _underrunFrames.load(std::memory_order_relaxed); }
    /// How often there was too much in the ring, and the frames that were left out.
    uint64_t overruns() const noexcept;
    uint64_t overrunFrames() const noexcept;

    CycleMonitor& inputMonitor() noexcept { return _inputMonitor; }
    /// The input's, when both are one device.
    CycleMonitor& outputMonitor() noexcept { return _hasTwoDevices ? _outputMonitor : _inputMonitor; }
    LevelMeter& inputMeter() noexcept { return _inputMeter; }
    LevelMeter& outputMeter() noexcept { return _outputMeter; }

private:
    AudioLoop(const DeviceReport& input, const DeviceReport& output);
    ~AudioLoop() override = default;

    void _passThrough(const AudioTimeStamp* now, const AudioBufferList* input,
                      const AudioTimeStamp* inputTime, AudioBufferList* output) noexcept CX_REALTIME;
    void _takeInput(const AudioTimeStamp* now, const AudioBufferList* input,
                    const AudioTimeStamp* inputTime) noexcept CX_REALTIME;
    void _giveOutput(const AudioTimeStamp* now, AudioBufferList* output,
                     const AudioTimeStamp* outputTime) noexcept CX_REALTIME;
    bool _isPrimed(uint32_t frameCount) noexcept CX_REALTIME;
    void _holdLatency(uint32_t frameCount) noexcept CX_REALTIME;
    uint64_t _margin() const noexcept CX_REALTIME;

    const DeviceReport _input, _output;
    const bool _hasTwoDevices;
    const ChannelMap _map;
    FrameRing _ring;
    CycleMonitor _inputMonitor, _outputMonitor;
    LevelMeter _inputMeter, _outputMeter;

    // Raised by the output's cycle when it wants input, never lowered; the input's cycle keeps nothing
    // before. The samples go through the ring, so that nothing else hangs on it.
    std::atomic<bool> _isWanted{false};
    std::atomic<bool> _isFlowing{false};

    // Of the output's IO thread.
    bool _isPlaying = false;       // else the ring fills up
    uint64_t _leastAfterCycle = 0; // frames left in the ring after a cycle, the least of this stretch
    uint64_t _stretchFrames = 0;   // how long the stretch is by now

    // Statistics, each with one writer.
    std::atomic<uint64_t> _framesMoved{0}, _underruns{0}, _underrunFrames{0};
    std::atomic<uint64_t> _refused{0}, _refusedFrames{0}; // by the full ring
    std::atomic<uint64_t> _jumps{0}, _jumpedFrames{0};    // to hold the latency
};
