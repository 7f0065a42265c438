#pragma once

#include "ClockBridge.h"

#include <vector>

/// A sub-device while an aggregate runs: its streams, and how long its cycles are.
struct AggregateTrackShape {
    AudioObjectID deviceID = kAudioObjectUnknown; ///< unknown while absent
    std::vector<uint32_t> inputChannels;          ///< of each stream
    std::vector<uint32_t> outputChannels;
    double sampleRate = 48000.0; ///< nominal, Hz
    uint32_t maxFrames = 512;    ///< of a cycle
    bool operator==(const AggregateTrackShape&) const = default;
};

/// The way between a sub-device and the aggregate's cycles when another device leads: a bridge in either
/// direction where there are channels, and the samples of one of the aggregate's cycles.
/// Threads:   the functions of the sub-device on its IO thread, those of the leader on the leader's, which
///            may be the same; status() on any.
/// Real time: all but making it, and status().
class AggregateTrack final : public CXObject {
public:
    /// Between `shape` and a leader with cycles of `leaderFrames` at `leaderRate` Hz. Null when the rates are
    /// too far apart to be converted.
    static CXRef<AggregateTrack> initWithShape(const AggregateTrackShape& shape, double leaderRate,
                                               uint32_t leaderFrames, bool isCompensated);

    /// A cycle of the sub-device.
    void run(const AudioTimeStamp& now, const AudioBufferList* input, AudioBufferList* output) noexcept
        CX_REALTIME;

    /// The leader's cycle of at most `leaderFrames()` frames begins: the input blocks are filled now, the
    /// output blocks are to be filled.
    void begin(const AudioTimeStamp& now, uint32_t frameCount) noexcept CX_REALTIME;
    std::span<const HALStreamBlock> inputBlocks() const noexcept CX_REALTIME { return _inputBlocks; }
    std::span<const HALStreamBlock> outputBlocks() const noexcept CX_REALTIME { return _outputBlocks; }
    /// It ends: the output blocks go to the sub-device.
    void end(const AudioTimeStamp& now, uint32_t frameCount) noexcept CX_REALTIME;

    const AggregateTrackShape& shape() const noexcept { return _shape; }
    uint32_t leaderFrames() const noexcept { return _leaderFrames; }
    bool isCompensated() const noexcept { return _isCompensated; }
    /// The rates and counts of both directions.
    void addStatus(AudioAggregateSubDeviceStatus& status) const noexcept;

private:
    AggregateTrack(const AggregateTrackShape& shape, bool isCompensated, uint32_t leaderFrames);
    ~AggregateTrack() override = default;

    const AggregateTrackShape _shape;
    const uint32_t _leaderFrames;
    const bool _isCompensated;
    CXRef<ClockBridge> _input;  // none without input channels
    CXRef<ClockBridge> _output; // none without output channels

    // The leader's.
    std::vector<std::vector<float>> _samples; // of each stream
    std::vector<HALStreamBlock> _inputBlocks, _outputBlocks;

    // The sub-device's: its own buffers of the cycle under way.
    std::vector<HALStreamBlock> _deviceInput, _deviceOutput;
};

/// The frames of a cycle, by its lists; 0 when no stream has data.
uint32_t halFrameCount(const AudioBufferList* input, const AudioBufferList* output) noexcept CX_REALTIME;
/// Points `blocks` at the buffers of `list`; false when their channels are others.
bool halTakeBlocks(const AudioBufferList* list, std::span<HALStreamBlock> blocks) noexcept CX_REALTIME;
