#pragma once

#include "BridgeRing.h"
#include "DriftController.h"

#include <span>

/// Transfers frames from one device's cycles to those of another device with its own clock, with a constant
/// delay. Written on one IO thread, read on another or on the same.
///
/// Missing frames are replaced by silence with faded edges, and counted. Frames for which the ring buffer has
/// no room are dropped. Neither moves the frames before and after: cycles that a device lost remain gaps at
/// their place.
/// Threads:   write() on the writing device's IO thread, read() on the reading device's; status() on any.
/// Real time: everything except creation.
class ClockBridge final : public CXObject {
public:
    struct Settings {
        double writerRate = 48000.0; ///< nominal, Hz
        double readerRate = 48000.0;
        uint32_t maxWriterFrames = 512; ///< of the longest cycle; longer ones are dropped
        uint32_t maxReaderFrames = 512;
        uint32_t channelCount = 2;
        bool compensates = true; ///< false: both have one clock; at equal rates frames are not changed
    };
    /// Returns null if the rates are too far apart (CompensatingResampler::maxRatio).
    static CXRef<ClockBridge> initWithSettings(const Settings& settings);

    /// Writes a cycle's samples, in blocks with channelCount channels in total. The cycle began at
    /// `hostNanoseconds` and at `sampleTime`.
    void write(uint64_t hostNanoseconds, uint64_t sampleTime, std::span<const HALStreamBlock> blocks,
               uint32_t frameCount) noexcept CX_REALTIME;
    /// Fills a cycle's blocks, which have channelCount channels in total; a block without samples is skipped.
    void read(uint64_t hostNanoseconds, uint64_t sampleTime, std::span<const HALStreamBlock> blocks,
              uint32_t frameCount) noexcept CX_REALTIME;

    struct Status {
        double partsPerMillion = 0.0; ///< how much faster the writer's clock runs than the reader's
        double levelFrames = 0.0;     ///< frames in the ring after the reading position
        double delayFrames = 0.0;     ///< the delay that is maintained, in the writer's frames
        uint32_t resynchronisations = 0;
        uint64_t lostFrames = 0; ///< the reader's frames that were silent because no input was available
    };
    /// The status after the last read. Its members may be of two consecutive cycles.
    Status status() const noexcept;

private:
    ClockBridge(const Settings& settings, CXRef<CompensatingResampler> resampler);
    ~ClockBridge() override = default;

    void _fillGap(uint64_t sampleTime, std::span<const HALStreamBlock> blocks, uint32_t frameCount) noexcept
        CX_REALTIME;
    void _readBlock(const HALStreamBlock& block, uint32_t firstChannel, const ReadPlan& plan,
                    uint32_t frameCount) const noexcept CX_REALTIME;
    void _publish() noexcept CX_REALTIME;

    const Settings _settings;
    const CXRef<CompensatingResampler> _resampler;
    BridgeRing _ring;

    // Used by the writer only.
    uint64_t _nextSampleTime = 0;
    bool _hasWritten = false;

    // Used by the reader only.
    DriftController _controller;
    bool _wasSilent = true;

    // For status(). Stored by the reader only; relaxed, because each value is independent of the others.
    std::atomic<double> _partsPerMillion{0.0};
    std::atomic<double> _levelFrames{0.0};
    std::atomic<double> _delayFrames{0.0};
    std::atomic<uint32_t> _resynchronisations{0};
    std::atomic<uint64_t> _lostFrames{0};
};
