#pragma once

#include "ClockBridge.h"

#include <vector>

/// The streams and cycle length of a sub-device during a run of an aggregate.
struct AggregateTrackShape {
    AudioObjectID deviceID = kAudioObjectUnknown; ///< unknown while absent
    std::vector<uint32_t> inputChannels;          ///< of each stream
    std::vector<uint32_t> outputChannels;
    double sampleRate = 48000.0; ///< nominal, Hz
    uint32_t maxFrames = 512;    ///< of a cycle
    bool operator==(const AggregateTrackShape&) const = default;
};

/// Connects a sub-device to the aggregate's cycles when another device leads: a bridge for each direction
/// that has channels, and the samples of one cycle of the aggregate.
/// Threads:   run() on the sub-device's IO thread; begin(), end() and the blocks on the leader's, which may
///            be the same; addStatus() on any.
/// Real time: everything except creation and addStatus().
class AggregateTrack final : public CXObject {
public:
    /// Creates a track between `shape` and a leader with cycles of `leaderFrames` at `leaderRate` Hz. Returns
    /// null if the rates are too far apart for the resampler.
    static CXRef<AggregateTrack> initWithShape(const AggregateTrackShape& shape, double leaderRate,
                                               uint32_t leaderFrames, bool isCompensated);

    /// Processes a cycle of the sub-device.
    void run(const AudioTimeStamp& now, const AudioBufferList* input, AudioBufferList* output) noexcept
        CX_REALTIME;

    /// Begins a cycle of the leader of at most `leaderFrames()` frames: fills the input blocks. The caller
    /// then fills the output blocks.
    void begin(const AudioTimeStamp& now, uint32_t frameCount) noexcept CX_REALTIME;
    std::span<const HALStreamBlock> inputBlocks() const noexcept CX_REALTIME { return _inputBlocks; }
    std::span<const HALStreamBlock> outputBlocks() const noexcept CX_REALTIME { return _outputBlocks; }
    /// Ends the leader's cycle: sends the output blocks to the sub-device.
    void end(const AudioTimeStamp& now, uint32_t frameCount) noexcept CX_REALTIME;

    const AggregateTrackShape& shape() const noexcept { return _shape; }
    uint32_t leaderFrames() const noexcept { return _leaderFrames; }
    bool isCompensated() const noexcept { return _isCompensated; }
    /// Adds the rates and counters of both directions to `status`.
    void addStatus(AudioAggregateSubDeviceStatus& status) const noexcept;

private:
    AggregateTrack(const AggregateTrackShape& shape, bool isCompensated, uint32_t leaderFrames);
    ~AggregateTrack() override = default;

    const AggregateTrackShape _shape;
    const uint32_t _leaderFrames;
    const bool _isCompensated;
    CXRef<ClockBridge> _input;  // null without input channels
    CXRef<ClockBridge> _output; // null without output channels

    // Used by the leader's IO thread only.
    std::vector<std::vector<float>> _samples; // of each stream
    std::vector<HALStreamBlock> _inputBlocks, _outputBlocks;

    // Used by the sub-device's IO thread only: its buffers in the current cycle.
    std::vector<HALStreamBlock> _deviceInput, _deviceOutput;
};

/// The number of frames in the lists of a cycle; 0 if no stream has data.
uint32_t halFrameCount(const AudioBufferList* input, const AudioBufferList* output) noexcept CX_REALTIME;
/// Points `blocks` to the buffers of `list`; returns false if the channel counts differ.
bool halTakeBlocks(const AudioBufferList* list, std::span<HALStreamBlock> blocks) noexcept CX_REALTIME;
