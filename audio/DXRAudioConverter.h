#pragma once

#include "CXExport.h"
#include "CXRef.h"
#include "DXRConversionQuality.h"
#include "DXRConverterNode.h"
#include "DXRCycleTimes.h"
#include "ausampler.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class RateConversion;

/// Converts between a device, which runs at its own frame count and sample rate (the context side), and its
/// nodes, which always run at the frame count and rate that they were promised (the converted side).
///
/// In each device cycle it appends the device's input to a buffer, runs as many whole node cycles as the
/// frames allow, and fills the device's output from another buffer. If there are nodes in both directions,
/// they run in lockstep with the same sample time, as often as the device's output requires; missing input is
/// filled by repeating the oldest frame. A direction whose nodes use no channel runs in the same way, with
/// null entries.
/// Threads:   one thread at a time, the IO thread of the context.
/// Real time: performIOWithSampleTime; creation and description allocate.
/// Owns:      strong references to its nodes, a buffer per direction and, if the rates differ, a rate
///            conversion per direction.
/// Fails:     asserts if an invariant is violated.
class DXR_EXPORT DXRAudioConverter final : public CXObject {
public:
    using Nodes = std::vector<CXRef<DXRConverterNode>>;

    /// `nodes` and `channelCounts` are pairs, input and output: the nodes, and the device's number of
    /// channels in that direction. Rates are in Hz and above 0. Channel numbers that the device does not have
    /// are ignored.
    static CXRef<DXRAudioConverter>
    initWithNodes(const Nodes nodes[2], const uint32_t channelCounts[2], double contextSampleRate,
                  double convertedSampleRate, uint32_t contextFrameCount, uint32_t convertedFrameCount,
                  DXRConversionQuality quality = DXRConversionQuality::Standard);

    uint32_t contextFrameCount() const noexcept { return _contextFrameCount; }     ///< of a device cycle
    uint32_t convertedFrameCount() const noexcept { return _convertedFrameCount; } ///< of a node cycle
    double contextSampleRate() const noexcept { return _contextSampleRate; }       ///< Hz
    double convertedSampleRate() const noexcept { return _convertedSampleRate; }   ///< Hz

    /// Performs one device cycle of contextFrameCount() frames. `sampleTime` is the nodes' time in converted
    /// frames; it advances by convertedFrameCount() for each node cycle. `samples` is the pair of the
    /// device's channel entries, input and output, as many as `channelCounts` specified. A null entry, or a
    /// null array, is treated as silent input and ignored for output. Does nothing if a node cycle has no
    /// frames. `times` are the times of this device cycle.
    void performIOWithSampleTime(uint64_t* sampleTime, const DXRChannelEntry* const samples[2],
                                 const DXRCycleTimes& times = {}) CX_REALTIME;
    /// The position of the first frame of the last input or output block, in device frames after the first
    /// frame of the device cycle that ran the block. Negative for input that was buffered in earlier cycles.
    double placeOfLastBlock(bool isInput) const noexcept { return _lastPlaces[isInput ? INPUT : OUTPUT]; }

    /// "<DXRAudioConverter: address, input [1, 2], output [1, 2], frameCount: 512 -> 256, sampleRate: 44100hz
    /// -> 48000hz>", without the parts that do not apply.
    std::string description() const override;

private:
    enum Direction { INPUT = 0, OUTPUT = 1 };

    DXRAudioConverter(const Nodes nodes[2], const uint32_t channelCounts[2], double contextSampleRate,
                      double convertedSampleRate, uint32_t contextFrameCount, uint32_t convertedFrameCount,
                      DXRConversionQuality quality);
    ~DXRAudioConverter() override;

    void _collectUsage(Direction direction);
    void _prepare(Direction direction);

    uint32_t _performInput(uint64_t* sampleTime);
    uint32_t _performOutput(uint64_t* sampleTime);
    uint32_t _performInputOutput(uint64_t* sampleTime);
    uint32_t _outputFramesNeeded() const noexcept;
    bool _performInputCallBack(uint64_t sampleTime, uint32_t* bufferFramesConsumed);
    void _performOutputCallBack(uint64_t sampleTime);
    void _slideInputBuffer(uint32_t bufferFramesConsumed);
    void _offsetInputBuffer(uint32_t frames);

    void _takeInput(const DXRChannelEntry* entries);
    void _giveOutput(const DXRChannelEntry* entries, uint32_t bufferFramesConsumed);
    void _readOutput(const std::vector<ausampler_iovec>& to) noexcept;
    void _giveCollectedOutput() noexcept;
    void _dropFrames(Direction direction, uint32_t frames) noexcept;
    double _placeOf(Direction direction, uint32_t frame) const noexcept;
    uint64_t _beginBlock(Direction direction, uint32_t frame) noexcept;
    const DXRChannelEntry* _nodeEntriesAt(Direction direction, uint32_t frame) noexcept;
    float* _bufferAt(Direction direction, uint32_t frame) const noexcept;
    void _pointAtDevice(Direction direction, const DXRChannelEntry* entries) noexcept;
    void _pointAtBuffer(Direction direction, uint32_t frame) noexcept;

    const DXRConversionQuality _quality;
    const Nodes _nodes[2];
    const uint32_t _contextChannelCounts[2];
    const uint32_t _contextFrameCount;
    const double _contextSampleRate;
    const uint32_t _convertedFrameCount;
    const double _convertedSampleRate;
    const bool _contains[2];
    std::vector<uint32_t> _usageMaps[2]; // device channels that any node uses, from 1, ascending
    uint32_t _usageChannelCounts[2] = {};
    uint32_t _bufferFrameCountMax = 0;
    uint32_t _bufferFrameCounts[2] = {};
    uint32_t _bufferFrameSizes[2] = {}; // bytes
    // Interleaved frames of the used channels. Empty if no channel is used; the frame count is kept all the
    // same.
    std::vector<float> _buffers[2];
    std::unique_ptr<RateConversion> _conversions[2]; // null if the rates are equal

    // The number of device frames read at a time: one cycle, or several if a cycle is shorter than one
    // converted frame. In that case the frames are stored interleaved in _collected, and _collectedFrames of
    // them are not yet output.
    uint32_t _framesReadTogether = 0;
    uint32_t _collectedFrames = 0;
    std::vector<float> _collected;
    std::vector<ausampler_iovec> _collectedSide;

    DXRCycleTimes _times;       // those of this cycle
    double _lastPlaces[2] = {}; // placeOfLastBlock()

    // One entry per used channel, on the device and in the buffer; set before each transfer.
    std::vector<ausampler_iovec> _deviceSide[2], _bufferSide[2];
    // The entries passed to nodes: one per device channel; those of used channels are set in each cycle.
    std::vector<DXRChannelEntry> _nodeEntries[2];
    float _silence = 0; // read, with stride 0, if a device channel has no data
    float _sink = 0;    // written, with stride 0, if a device channel has no buffer
};
