#include "AggregateTrack.h"

#include <algorithm>
#include <numeric>

namespace {

uint32_t sum(const std::vector<uint32_t>& channels)
{
    return std::accumulate(channels.begin(), channels.end(), uint32_t{0});
}

std::vector<HALStreamBlock> blocksOf(const std::vector<uint32_t>& channels)
{
    std::vector<HALStreamBlock> blocks;
    blocks.reserve(channels.size());
    for (const uint32_t count : channels)
        blocks.push_back({nullptr, count});
    return blocks;
}

uint64_t sampleTimeOf(const AudioTimeStamp& now) noexcept
{
    return now.sampleTime > 0.0 ? static_cast<uint64_t>(now.sampleTime) : 0;
}

const AudioBuffer& bufferOf(const AudioBufferList& list, uint32_t index) noexcept
{
    return *(&list.buffers[0] + index); // the array is declared with one element
}

uint32_t firstFrameCount(const AudioBufferList* list) noexcept
{
    for (uint32_t stream = 0; list && stream < list->numberBuffers; ++stream) {
        const AudioBuffer& buffer = bufferOf(*list, stream);
        if (buffer.data && buffer.numberChannels > 0)
            return buffer.dataByteSize / (buffer.numberChannels * static_cast<uint32_t>(sizeof(float)));
    }
    return 0;
}

} // namespace

uint32_t halFrameCount(const AudioBufferList* input, const AudioBufferList* output) noexcept
{
    const uint32_t frames = firstFrameCount(output);
    return frames > 0 ? frames : firstFrameCount(input);
}

bool halTakeBlocks(const AudioBufferList* list, std::span<HALStreamBlock> blocks) noexcept
{
    if ((list ? list->numberBuffers : 0) != blocks.size())
        return false;
    for (uint32_t stream = 0; stream < blocks.size(); ++stream) {
        // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker): without a list there is no stream
        const AudioBuffer& buffer = bufferOf(*list, stream);
        if (buffer.numberChannels != blocks[stream].channelCount)
            return false;
        blocks[stream].samples = static_cast<float*>(buffer.data);
    }
    return true;
}

CXRef<AggregateTrack> AggregateTrack::initWithShape(const AggregateTrackShape& shape, double leaderRate,
                                                    uint32_t leaderFrames, bool isCompensated)
{
    auto track = CXRef<AggregateTrack>::adopt(new AggregateTrack(shape, isCompensated, leaderFrames));
    const uint32_t inputs = sum(shape.inputChannels);
    const uint32_t outputs = sum(shape.outputChannels);
    if (inputs > 0)
        track->_input = ClockBridge::initWithSettings(
            {shape.sampleRate, leaderRate, shape.maxFrames, leaderFrames, inputs, isCompensated});
    if (outputs > 0)
        track->_output = ClockBridge::initWithSettings(
            {leaderRate, shape.sampleRate, leaderFrames, shape.maxFrames, outputs, isCompensated});
    const bool isWhole = (inputs == 0 || track->_input) && (outputs == 0 || track->_output);
    return isWhole ? track : nullptr;
}

AggregateTrack::AggregateTrack(const AggregateTrackShape& shape, bool isCompensated, uint32_t leaderFrames)
    : _shape(shape), _leaderFrames(leaderFrames), _isCompensated(isCompensated),
      _inputBlocks(blocksOf(shape.inputChannels)), _outputBlocks(blocksOf(shape.outputChannels)),
      _deviceInput(_inputBlocks), _deviceOutput(_outputBlocks)
{
    for (std::vector<HALStreamBlock>* blocks : {&_inputBlocks, &_outputBlocks})
        for (HALStreamBlock& block : *blocks) {
            _samples.emplace_back(size_t{block.channelCount} * leaderFrames);
            block.samples = _samples.back().data();
        }
}

void AggregateTrack::run(const AudioTimeStamp& now, const AudioBufferList* input,
                         AudioBufferList* output) noexcept
{
    const uint32_t frames = halFrameCount(input, output);
    if (frames == 0 || !halTakeBlocks(input, _deviceInput) || !halTakeBlocks(output, _deviceOutput))
        return;
    if (_input)
        _input->write(now.hostTime, sampleTimeOf(now), _deviceInput, frames);
    if (_output)
        _output->read(now.hostTime, sampleTimeOf(now), _deviceOutput, frames);
}

void AggregateTrack::begin(const AudioTimeStamp& now, uint32_t frameCount) noexcept
{
    if (_input)
        _input->read(now.hostTime, sampleTimeOf(now), _inputBlocks, frameCount);
}

void AggregateTrack::end(const AudioTimeStamp& now, uint32_t frameCount) noexcept
{
    if (_output)
        _output->write(now.hostTime, sampleTimeOf(now), _outputBlocks, frameCount);
}

void AggregateTrack::addStatus(AudioAggregateSubDeviceStatus& status) const noexcept
{
    status.isRunning = 1;
    status.isCompensated = _isCompensated ? 1 : 0;
    if (_output) { // negated: here the leader writes and the sub-device reads
        const ClockBridge::Status output = _output->status();
        status.partsPerMillion = -output.partsPerMillion;
        status.outputLevelFrames = output.levelFrames;
        status.outputDelayFrames = output.delayFrames;
        status.resynchronisations += output.resynchronisations;
        status.lostFrames += output.lostFrames;
    }
    if (_input) {
        const ClockBridge::Status input = _input->status();
        status.partsPerMillion = input.partsPerMillion;
        status.inputLevelFrames = input.levelFrames;
        status.inputDelayFrames = input.delayFrames;
        status.resynchronisations += input.resynchronisations;
        status.lostFrames += input.lostFrames;
    }
}
