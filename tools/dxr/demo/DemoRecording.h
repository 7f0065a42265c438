#pragma once

#include <atomic>
#include <dxr/simulated.h>
#include <memory>
#include <span>
#include <vector>

/// Records the first channel of a simulated output, in blocks of a tenth of a second without a gap.
/// Threads:   the sink on the device's IO thread, of one device at a time; the rest on one other.
/// Real time: the sink.
class DemoRecording {
public:
    static constexpr double blockSeconds = 0.1;
    struct Block {
        uint64_t hostTicks; ///< when its first sample was played
        std::span<const float> samples;
    };

    /// Room for `seconds` at `sampleRate` Hz; then it is full.
    DemoRecording(double sampleRate, double seconds);

    /// This object must outlive the devices that play into it.
    SimulatedSink sink();
    double sampleRate() const noexcept { return _sampleRate; }
    std::vector<Block> blocks() const;

private:
    void _keep(uint64_t sampleTime, uint32_t frameCount, uint32_t channels, const float* samples) noexcept
        CX_REALTIME;

    const double _sampleRate;
    const size_t _blockFrames, _maxBlocks;
    const std::unique_ptr<float[]> _samples; // not cleared: pages are allocated as they are written
    const std::unique_ptr<uint64_t[]> _blockTicks;
    // Of the sink: the device's sample time after the last cycle, and the frames of the incomplete block.
    uint64_t _nextSampleTime = 0;
    size_t _filledFrames = 0;
    // Written by the sink. Blocks below it are complete: its release pairs with the reader's acquire.
    std::atomic<size_t> _blockCount{0};
};
