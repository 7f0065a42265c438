#pragma once

#include <atomic>
#include <dxr/simulated.h>
#include <memory>
#include <span>
#include <vector>

/// Records the first channel of a simulated output, in gapless blocks of a tenth of a second.
/// Threads:   the sink on the IO thread of one device at a time; all else on one other thread.
/// Real time: the sink.
class DemoRecording {
public:
    static constexpr double blockSeconds = 0.1;
    struct Block {
        uint64_t hostTicks; ///< when its first sample was played
        std::span<const float> samples;
    };

    /// Records up to `seconds` at `sampleRate` Hz.
    DemoRecording(double sampleRate, double seconds);

    /// The sink for a simulated device. This object must outlive the devices that play into it.
    SimulatedSink sink();
    double sampleRate() const noexcept { return _sampleRate; }
    std::vector<Block> blocks() const;

private:
    void _keep(uint64_t sampleTime, uint32_t frameCount, uint32_t channels, const float* samples) noexcept
        CX_REALTIME;

    const double _sampleRate;
    const size_t _blockFrames, _maxBlocks;
    const std::unique_ptr<float[]> _samples; // uninitialised, so that pages are allocated when written
    const std::unique_ptr<uint64_t[]> _blockTicks;
    // Used by the sink only: the device's sample time after the last cycle, and the number of frames in the
    // incomplete block.
    uint64_t _nextSampleTime = 0;
    size_t _filledFrames = 0;
    // Stored by the sink with release after a block is complete; pairs with the reader's acquire.
    std::atomic<size_t> _blockCount{0};
};
