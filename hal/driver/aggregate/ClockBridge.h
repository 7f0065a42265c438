#pragma once

#include "BridgeRing.h"
#include "DriftController.h"

#include <span>

/// Carries frames from one device's cycles to another's, each with its own clock: written on one IO thread,
/// read on another or on the same, at a delay that does not change.
///
/// What lacks is silence, faded at its edges, and counted; what comes when there is no room is left out.
/// Neither moves the frames around it: cycles that a device lost stay lost where they were.
/// Threads:   write() on the writing device's IO thread, read() on the reading device's; status() on any.
/// Real time: everything but making it.
class ClockBridge final : public CXObject {
public:
    struct Settings {
        double writerRate = 48000.0; ///< nominal, Hz
        double readerRate = 48000.0;
        uint32_t mostWriterFrames = 512; ///< of the longest cycle; a longer one is left out
        uint32_t mostReaderFrames = 512;
        uint32_t channelCount = 2;
        bool compensates = true; ///< false: the clocks are one; frames pass unchanged between equal rates
    };
    /// Null when the rates are too far apart (CompensatingResampler::maxRatio).
    static CXRef<ClockBridge> initWithSettings(const Settings& settings);

    /// Takes a cycle's samples, blocks of channelCount channels in all, at the time and the sample time at
    /// which the cycle began.
    void write(uint64_t hostNanoseconds, uint64_t sampleTime, std::span<const HALStreamBlock> blocks,
               uint32_t frameCount) noexcept CX_REALTIME;
    /// Fills a cycle's blocks, of channelCount channels in all; one without samples is left out.
    void read(uint64_t hostNanoseconds, uint64_t sampleTime, std::span<const HALStreamBlock> blocks,
              uint32_t frameCount) noexcept CX_REALTIME;

    struct Status {
        double partsPerMillion = 0.0; ///< how much faster than nominal the writer runs, against the reader
        double levelFrames = 0.0;     ///< of the ring, after the reading position
        double delayFrames = 0.0;     ///< that is held, in frames of the writer
        uint32_t resynchronisations = 0;
        uint64_t lostFrames = 0; ///< of the reader, silent for want of input
    };
    /// As of the last read; its parts may be of two cycles.
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

    // The writer's.
    uint64_t _nextSampleTime = 0;
    bool _hasWritten = false;

    // The reader's.
    DriftController _controller;
    bool _wasSilent = true;

    // For status(). Stored by the reader alone, each for itself: relaxed.
    std::atomic<double> _partsPerMillion{0.0};
    std::atomic<double> _levelFrames{0.0};
    std::atomic<double> _delayFrames{0.0};
    std::atomic<uint32_t> _resynchronisations{0};
    std::atomic<uint64_t> _lostFrames{0};
};
