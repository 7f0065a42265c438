#include "DXRAudioConverter.h"

#include "CXErrorAdditions.h"
#include "HostClock.h"
#include "NumberText.h"
#include "RateConversion.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t headroomFrames = 16;
constexpr double maxBufferFrames = 1U << 30; // keeps every count within 32 bits

/// The number of device frames read at a time. A sampler's read consumes at least one frame of the other
/// side, so cycles shorter than one such frame are combined until they make up one.
uint32_t framesReadTogether(uint32_t contextFrameCount, double convertedPerContext)
{
    const double convertedFrames = contextFrameCount * convertedPerContext;
    if (contextFrameCount == 0 || convertedFrames >= 1)
        return contextFrameCount;
    const double cycles = std::ceil(1 / convertedFrames);
    CX_ASSERT(cycles * contextFrameCount <= maxBufferFrames);
    return static_cast<uint32_t>(cycles) * contextFrameCount;
}

/// The number of frames that each buffer must hold. With D device frames per cycle, B read at a time, F
/// frames per node cycle and r converted frames per device frame:
/// - Output: a read consumes at most B r + 2 frames, and the nodes add F while fewer are buffered: fewer than
///   B r + 2 + F.
/// - Input alone: fewer than F frames remain after a cycle; a write adds at most D r + r + 1.
/// - Input with output: node cycles move F frames from one buffer to the other. So the sum of both changes
///   only by writes, by reads, and by padding; after padding, the input is empty and the output holds fewer
///   than F. Initially both hold F / 2. Starting from either state, the frames written exceed the frames read
///   by at most what the two samplers' phases can differ: a writer's is in 0 … r + 1 frames, a reader's in 0
///   … max(r, 2), and a read is up to B r < 2 frames behind the position up to which it is collected. Before
///   the cycle's own read, D r more are buffered: at most F + D r + r + 1 + max(r, 2) + 2.
/// All of these are at most F + ceil(B r) + 2 ceil(r) + 7. At equal rates no sampler has a phase.
uint32_t bufferFramesNeeded(uint32_t framesTogether, uint32_t convertedFrameCount, double convertedPerContext)
{
    double frames = std::ceil(framesTogether * convertedPerContext) + convertedFrameCount + headroomFrames;
    if (convertedPerContext != 1)
        frames += 2 * std::ceil(convertedPerContext);
    CX_ASSERT(frames <= maxBufferFrames);
    return static_cast<uint32_t>(frames);
}

/// Copies `frameCount` frames between two lists of channels.
void copyFrames(const std::vector<ausampler_iovec>& from, const std::vector<ausampler_iovec>& to,
                uint32_t frameCount) noexcept
{
    const uint64_t frameSize = from.size() * sizeof(float);
    const auto isDense = [frameSize](const std::vector<ausampler_iovec>& channels) {
        for (size_t c = 0; c < channels.size(); ++c)
            if (channels[c].stride != frameSize ||
                channels[c].base != static_cast<float*>(channels[0].base) + c)
                return false;
        return true;
    };
    if (isDense(from) && isDense(to)) {
        if (!from.empty())
            std::memcpy(to[0].base, from[0].base, frameCount * frameSize);
        return;
    }
    for (size_t c = 0; c < from.size(); ++c) {
        const auto* source = static_cast<const float*>(from[c].base);
        auto* destination = static_cast<float*>(to[c].base);
        const size_t sourceStride = from[c].stride / sizeof(float), stride = to[c].stride / sizeof(float);
        for (uint32_t frame = 0; frame < frameCount; ++frame, source += sourceStride, destination += stride)
            *destination = *source;
    }
}

std::string joined(const std::vector<uint32_t>& numbers)
{
    std::string text;
    for (const uint32_t number : numbers)
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    return text;
}

} // namespace

DXRConverterNode::~DXRConverterNode() = default;

CXRef<DXRAudioConverter>
DXRAudioConverter::initWithNodes(const Nodes nodes[2], const uint32_t channelCounts[2],
                                 double contextSampleRate, double convertedSampleRate,
                                 uint32_t contextFrameCount, uint32_t convertedFrameCount,
                                 DXRConversionQuality quality)
{
    CX_ASSERT(contextSampleRate > 0 && convertedSampleRate > 0);
    CX_ASSERT(std::isfinite(contextSampleRate) && std::isfinite(convertedSampleRate));
    return CXRef<DXRAudioConverter>::adopt(new DXRAudioConverter(nodes, channelCounts, contextSampleRate,
                                                                 convertedSampleRate, contextFrameCount,
                                                                 convertedFrameCount, quality));
}

DXRAudioConverter::DXRAudioConverter(const Nodes nodes[2], const uint32_t channelCounts[2],
                                     double contextSampleRate, double convertedSampleRate,
                                     uint32_t contextFrameCount, uint32_t convertedFrameCount,
                                     DXRConversionQuality quality)
    : _quality(quality), _nodes{nodes[INPUT], nodes[OUTPUT]}, _contextChannelCounts{channelCounts[INPUT],
                                                                                    channelCounts[OUTPUT]},
      _contextFrameCount(contextFrameCount), _contextSampleRate(contextSampleRate),
      _convertedFrameCount(convertedFrameCount),
      _convertedSampleRate(convertedSampleRate), _contains{!nodes[INPUT].empty(), !nodes[OUTPUT].empty()}
{
    const double convertedPerContext = convertedSampleRate / contextSampleRate;
    _framesReadTogether = framesReadTogether(contextFrameCount, convertedPerContext);
    _bufferFrameCountMax = bufferFramesNeeded(_framesReadTogether, convertedFrameCount, convertedPerContext);
    for (const Direction direction : {INPUT, OUTPUT}) {
        _collectUsage(direction);
        _prepare(direction);
        // Half a node cycle in each direction, so that neither buffer runs empty when both directions run.
        if (_contains[INPUT] && _contains[OUTPUT])
            _bufferFrameCounts[direction] = convertedFrameCount / 2;
    }
}

DXRAudioConverter::~DXRAudioConverter() = default;

void DXRAudioConverter::_collectUsage(Direction direction)
{
    std::vector<uint32_t>& map = _usageMaps[direction];
    for (const CXRef<DXRConverterNode>& node : _nodes[direction])
        for (const uint32_t channel : node->usageMap())
            if (channel >= 1 && channel <= _contextChannelCounts[direction])
                map.push_back(channel);
    std::ranges::sort(map);
    map.erase(std::unique(map.begin(), map.end()), map.end());
    _usageChannelCounts[direction] = static_cast<uint32_t>(map.size());
}

/// Allocates everything that cycles use. A sampler without channels is created too, because it counts frames.
void DXRAudioConverter::_prepare(Direction direction)
{
    const uint32_t used = _usageChannelCounts[direction];
    _bufferFrameSizes[direction] = static_cast<uint32_t>(used * sizeof(float));
    _buffers[direction].assign(size_t{used} * _bufferFrameCountMax, 0);
    if (_contains[direction] && _contextSampleRate != _convertedSampleRate) {
        const bool isInput = direction == INPUT;
        _conversions[direction] =
            RateConversion::make(_quality, used, isInput ? _contextSampleRate : _convertedSampleRate,
                                 isInput ? _convertedSampleRate : _contextSampleRate,
                                 std::max(_bufferFrameCountMax, _framesReadTogether));
    }
    if (direction == OUTPUT && _framesReadTogether != _contextFrameCount)
        _collected.assign(size_t{used} * _framesReadTogether, 0);
    _deviceSide[direction].resize(used);
    _bufferSide[direction].resize(used);
    if (direction == OUTPUT)
        _collectedSide.resize(used);
    // One at least, because a null array means that there are no entries, and the node is muted.
    _nodeEntries[direction].assign(std::max(1U, _contextChannelCounts[direction]),
                                   DXRChannelEntry{nullptr, 0});
}

uint64_t DXRCycleTimes::ticksAt(double first, double frames) const noexcept
{
    constexpr double ticksPerNanosecond =
        double{dxr::HostClock::nanosecondsDenominator} / dxr::HostClock::nanosecondsNumerator;
    const double nanoseconds = first + frames * framePeriod;
    return framePeriod > 0 && nanoseconds > 0 ? static_cast<uint64_t>(nanoseconds * ticksPerNanosecond) : 0;
}

/// Returns the position of a buffer's frame in the device cycle, in device frames after the first input, or
/// output, frame.
double DXRAudioConverter::_placeOf(Direction direction, uint32_t frame) const noexcept
{
    const RateConversion* const conversion = _conversions[direction].get();
    const double position = conversion ? conversion->nextPosition() : 0;
    const double deviceFrames = _contextSampleRate / _convertedSampleRate; // per converted frame
    if (direction == INPUT) {
        // The frame after the last buffered one is at `position` after the end of this cycle.
        const double missing = static_cast<double>(_bufferFrameCounts[INPUT]) - frame;
        return _contextFrameCount + position - missing * deviceFrames;
    }
    // The next read begins `position` frames into the buffer and is played after the collected frames.
    return _collectedFrames + (frame - position) * deviceFrames;
}

/// Returns the host time at which the first frame of a block, at `frame` of the buffer, was or will be at the
/// device.
uint64_t DXRAudioConverter::_beginBlock(Direction direction, uint32_t frame) noexcept
{
    const double place = _lastPlaces[direction] = _placeOf(direction, frame);
    return _times.ticksAt(direction == INPUT ? _times.input : _times.output, place);
}

void DXRAudioConverter::performIOWithSampleTime(uint64_t* sampleTime, const DXRChannelEntry* const samples[2],
                                                const DXRCycleTimes& times)
{
    _times = times;
    if (_convertedFrameCount == 0)
        return;
    if (_contains[INPUT])
        _takeInput(samples[INPUT]);
    if (!_contains[OUTPUT]) {
        if (_contains[INPUT])
            _performInput(sampleTime);
        return;
    }
    const uint32_t consumed = _contains[INPUT] ? _performInputOutput(sampleTime) : _performOutput(sampleTime);
    _giveOutput(samples[OUTPUT], consumed);
}

void DXRAudioConverter::_takeInput(const DXRChannelEntry* entries)
{
    const uint32_t held = _bufferFrameCounts[INPUT];
    RateConversion* const conversion = _conversions[INPUT].get();
    _bufferFrameCounts[INPUT] += conversion ? conversion->framesOut(_contextFrameCount) : _contextFrameCount;
    CX_ASSERT(_bufferFrameCounts[INPUT] <= _bufferFrameCountMax); // checked before writing

    _pointAtDevice(INPUT, entries);
    _pointAtBuffer(INPUT, held);
    if (conversion)
        conversion->write(_deviceSide[INPUT].data(), _bufferSide[INPUT].data(), _contextFrameCount);
    else
        copyFrames(_deviceSide[INPUT], _bufferSide[INPUT], _contextFrameCount);
}

void DXRAudioConverter::_giveOutput(const DXRChannelEntry* entries, uint32_t bufferFramesConsumed)
{
    _pointAtBuffer(OUTPUT, 0);
    _pointAtDevice(OUTPUT, entries);
    if (_framesReadTogether != _contextFrameCount) {
        _giveCollectedOutput();
    } else if (_conversions[OUTPUT]) {
        _readOutput(_deviceSide[OUTPUT]);
    } else {
        CX_ASSERT(bufferFramesConsumed == _contextFrameCount);
        copyFrames(_bufferSide[OUTPUT], _deviceSide[OUTPUT], bufferFramesConsumed);
    }
    _dropFrames(OUTPUT, bufferFramesConsumed);
}

void DXRAudioConverter::_readOutput(const std::vector<ausampler_iovec>& to) noexcept
{
    _conversions[OUTPUT]->read(_bufferSide[OUTPUT].data(), to.data(), _framesReadTogether);
}

/// Outputs the next cycle of the collected frames; reads more if all have been output.
void DXRAudioConverter::_giveCollectedOutput() noexcept
{
    const uint32_t used = _usageChannelCounts[OUTPUT];
    const auto pointAtFrame = [&](uint32_t frame) {
        for (uint32_t i = 0; i < used; ++i)
            _collectedSide[i] = {_collected.data() + size_t{frame} * used + i, used * sizeof(float)};
    };
    if (_collectedFrames == 0) {
        pointAtFrame(0);
        _readOutput(_collectedSide);
        _collectedFrames = _framesReadTogether;
    }
    pointAtFrame(_framesReadTogether - _collectedFrames);
    copyFrames(_collectedSide, _deviceSide[OUTPUT], _contextFrameCount);
    _collectedFrames -= _contextFrameCount;
}

uint32_t DXRAudioConverter::_performInput(uint64_t* sampleTime)
{
    uint32_t consumed = 0;
    while (_performInputCallBack(*sampleTime, &consumed))
        *sampleTime += _convertedFrameCount;
    _slideInputBuffer(consumed);
    return 0;
}

uint32_t DXRAudioConverter::_performOutput(uint64_t* sampleTime)
{
    const uint32_t needed = _outputFramesNeeded();
    while (_bufferFrameCounts[OUTPUT] < needed) {
        _performOutputCallBack(*sampleTime);
        *sampleTime += _convertedFrameCount;
    }
    return needed;
}

uint32_t DXRAudioConverter::_performInputOutput(uint64_t* sampleTime)
{
    const uint32_t needed = _outputFramesNeeded();
    while (_bufferFrameCounts[OUTPUT] < needed) {
        if (_bufferFrameCounts[INPUT] < _convertedFrameCount)
            _offsetInputBuffer(_convertedFrameCount - _bufferFrameCounts[INPUT]);
        CX_ASSERT(_bufferFrameCounts[INPUT] >= _convertedFrameCount);
        uint32_t consumed = 0;
        _performInputCallBack(*sampleTime, &consumed);
        _slideInputBuffer(consumed);
        _performOutputCallBack(*sampleTime);
        *sampleTime += _convertedFrameCount;
    }
    return needed;
}

uint32_t DXRAudioConverter::_outputFramesNeeded() const noexcept
{
    if (!_conversions[OUTPUT])
        return _contextFrameCount;
    if (_collectedFrames > 0)
        return 0;
    return _conversions[OUTPUT]->framesIn(_framesReadTogether);
}

bool DXRAudioConverter::_performInputCallBack(uint64_t sampleTime, uint32_t* bufferFramesConsumed)
{
    CX_ASSERT(_bufferFrameCounts[INPUT] >= (*bufferFramesConsumed));
    if (_bufferFrameCounts[INPUT] - *bufferFramesConsumed < _convertedFrameCount)
        return false;
    const DXRChannelEntry* const entries = _nodeEntriesAt(INPUT, *bufferFramesConsumed);
    const uint64_t hostTime = _beginBlock(INPUT, *bufferFramesConsumed);
    for (const CXRef<DXRConverterNode>& node : _nodes[INPUT])
        node->performIOWithSampleTime(sampleTime, entries, hostTime);
    *bufferFramesConsumed += _convertedFrameCount;
    return true;
}

void DXRAudioConverter::_performOutputCallBack(uint64_t sampleTime)
{
    const DXRChannelEntry* const entries = _nodeEntriesAt(OUTPUT, _bufferFrameCounts[OUTPUT]);
    _bufferFrameCounts[OUTPUT] += _convertedFrameCount;
    CX_ASSERT(_bufferFrameCounts[OUTPUT] <= _bufferFrameCountMax); // before the nodes write
    const uint64_t hostTime =
        // The place of the next block: the device plays a node's output one block after the node makes it.
        _beginBlock(OUTPUT, _bufferFrameCounts[OUTPUT]);
    for (const CXRef<DXRConverterNode>& node : _nodes[OUTPUT])
        node->performIOWithSampleTime(sampleTime, entries, hostTime);
}

void DXRAudioConverter::_slideInputBuffer(uint32_t bufferFramesConsumed)
{
    if (bufferFramesConsumed == 0)
        return;
    CX_ASSERT(_bufferFrameCounts[INPUT] >= bufferFramesConsumed);
    _dropFrames(INPUT, bufferFramesConsumed);
}

/// Inserts `frames` frames of input at the front: repeats the oldest frame, or if there is none, the data
/// last stored there.
void DXRAudioConverter::_offsetInputBuffer(uint32_t frames)
{
    CX_ASSERT((_bufferFrameCounts[INPUT] + frames) <= _bufferFrameCountMax);
    const size_t frameSize = _bufferFrameSizes[INPUT];
    const size_t heldSize = _bufferFrameCounts[INPUT] * frameSize;
    _bufferFrameCounts[INPUT] += frames;
    if (frameSize == 0)
        return;
    std::memmove(_bufferAt(INPUT, frames), _bufferAt(INPUT, 0), heldSize);
    for (uint32_t frame = 1; frame < frames; ++frame)
        std::memcpy(_bufferAt(INPUT, frame), _bufferAt(INPUT, 0), frameSize);
}

void DXRAudioConverter::_dropFrames(Direction direction, uint32_t frames) noexcept
{
    _bufferFrameCounts[direction] -= frames;
    const size_t rest = size_t{_bufferFrameCounts[direction]} * _bufferFrameSizes[direction];
    if (rest > 0)
        std::memmove(_bufferAt(direction, 0), _bufferAt(direction, frames), rest);
}

float* DXRAudioConverter::_bufferAt(Direction direction, uint32_t frame) const noexcept
{
    return const_cast<float*>(_buffers[direction].data()) + size_t{frame} * _usageChannelCounts[direction];
}

const DXRChannelEntry* DXRAudioConverter::_nodeEntriesAt(Direction direction, uint32_t frame) noexcept
{
    const uint32_t used = _usageChannelCounts[direction];
    for (uint32_t i = 0; i < used; ++i)
        _nodeEntries[direction][_usageMaps[direction][i] - 1] = {_bufferAt(direction, frame) + i, used};
    return _nodeEntries[direction].data();
}

void DXRAudioConverter::_pointAtDevice(Direction direction, const DXRChannelEntry* entries) noexcept
{
    float* const nowhere = direction == INPUT ? &_silence : &_sink;
    for (uint32_t i = 0; i < _usageChannelCounts[direction]; ++i) {
        const DXRChannelEntry entry =
            entries ? entries[_usageMaps[direction][i] - 1] : DXRChannelEntry{nullptr, 0};
        _deviceSide[direction][i] = entry.samples
                                        ? ausampler_iovec{entry.samples, entry.stride * sizeof(float)}
                                        : ausampler_iovec{nowhere, 0};
    }
}

void DXRAudioConverter::_pointAtBuffer(Direction direction, uint32_t frame) noexcept
{
    for (uint32_t i = 0; i < _usageChannelCounts[direction]; ++i)
        _bufferSide[direction][i] = {_bufferAt(direction, frame) + i, _bufferFrameSizes[direction]};
}

std::string DXRAudioConverter::description() const
{
    std::string detail;
    if (_contains[INPUT])
        detail += "input [" + joined(_usageMaps[INPUT]) + "]";
    if (_contains[OUTPUT])
        detail += (detail.empty() ? "" : ", ") + ("output [" + joined(_usageMaps[OUTPUT]) + "]");
    if (_contextFrameCount != _convertedFrameCount)
        detail += ", frameCount: " + std::to_string(_contextFrameCount) + " -> " +
                  std::to_string(_convertedFrameCount);
    if (_contextSampleRate != _convertedSampleRate)
        detail += ", sampleRate: " + numberText(_contextSampleRate) + "hz -> " +
                  numberText(_convertedSampleRate) + "hz";
    char text[60];
    std::snprintf(text, sizeof text, "<DXRAudioConverter: %p, ", static_cast<const void*>(this));
    return text + detail + ">";
}
