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

/// Stands between a device, which runs at its own frame count and sample rate (the context side), and that
/// device's nodes, which always see the frame count and rate they were promised (the converted side).
///
/// Each device cycle it takes the device's input into a buffer, runs as many whole node cycles as the frames
/// allow, and fills the device's output from another buffer. With nodes in both directions both run in
/// lockstep on the same sample time, from as many output frames as the device needs; missing input is made up
/// by repeating the oldest frame. A direction whose nodes use no channel runs in step all the same, with null
/// entries.
/// Threads:   one thread at a time, the IO thread of the context.
/// Real time: performIOWithSampleTime; creation and description allocate.
/// Owns:      its nodes, strongly, a buffer per direction and, between different rates, a conversion per
///            direction.
/// Fails:     a broken invariant is a failed assertion.
class DXR_EXPORT DXRAudioConverter final : public CXObject {
public:
    using Nodes = std::vector<CXRef<DXRConverterNode>>;

    /// `nodes` and `channelCounts` are pairs, input and output: the nodes, and how many channels the device
    /// has in the direction. Rates in Hz, above 0. Channel numbers of a node that the device does not have
    /// are left out.
    static CXRef<DXRAudioConverter>
    initWithNodes(const Nodes nodes[2], const uint32_t channelCounts[2], double contextSampleRate,
                  double convertedSampleRate, uint32_t contextFrameCount, uint32_t convertedFrameCount,
                  DXRConversionQuality quality = DXRConversionQuality::Standard);

    uint32_t contextFrameCount() const noexcept { return _contextFrameCount; }     ///< of a device cycle
    uint32_t convertedFrameCount() const noexcept { return _convertedFrameCount; } ///< of a node cycle
    double contextSampleRate() const noexcept { return _contextSampleRate; }       ///< Hz
    double convertedSampleRate() const noexcept { return _convertedSampleRate; }   ///< Hz

    /// One device cycle of contextFrameCount() frames. `sampleTime` is the nodes' time, in converted frames;
    /// it advances by convertedFrameCount() for every node cycle. `samples` is the pair of the device's
    /// channel entries, input and output, as many as `channelCounts` said; a null entry, or a null array, is
    /// silence on input and ignored on output. Does nothing when a node cycle has no frames. `times` are the device's.
    void performIOWithSampleTime(uint64_t* sampleTime, const DXRChannelEntry* const samples[2],
                                 const DXRCycleTimes& times = {}) CX_REALTIME;
    /// Where the first frame of the last block of an input, or output, is in the device's cycle that ran it: device frames
    /// after the cycle's first. Negative for input that was kept from earlier cycles.
    double placeOfLastBlock(bool isInput) const noexcept { return _lastPlaces[isInput ? INPUT : OUTPUT]; }

    /// "<DXRAudioConverter: address, input [1, 2], output [1, 2], frameCount: 512 -> 256, sampleRate: 44100hz
    /// -> 48000hz>", with what applies.
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
    std::vector<uint32_t> _usageMaps[2]; // device channel numbers that some node uses, from 1, in order
    uint32_t _usageChannelCounts[2] = {};
    uint32_t _bufferFrameCountMax = 0;
    uint32_t _bufferFrameCounts[2] = {};
    uint32_t _bufferFrameSizes[2] = {}; // bytes
    // Interleaved frames of the used channels; without a used channel there is no memory, only the count.
    std::vector<float> _buffers[2];
    std::unique_ptr<RateConversion> _conversions[2]; // between different rates

    // Device frames that one read makes: a cycle, or several where a cycle is worth less than one converted frame. Those
    // are collected here, interleaved, _collectedFrames of them still to be given out.
    uint32_t _framesReadTogether = 0;
    uint32_t _collectedFrames = 0;
    std::vector<float> _collected;
    std::vector<ausampler_iovec> _collectedSide;

    DXRCycleTimes _times;       // of this cycle
    double _lastPlaces[2] = {}; // placeOfLastBlock()

    // One entry per used channel, on the device and in the buffer; set anew for each move.
    std::vector<ausampler_iovec> _deviceSide[2], _bufferSide[2];
    // What nodes see: one entry per device channel, of which those in use are set for each cycle.
    std::vector<DXRChannelEntry> _nodeEntries[2];
    float _silence = 0; // read, with stride 0, for a device channel without data
    float _sink = 0;    // written, with stride 0, in place of one
};
