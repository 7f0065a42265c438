#include "DXRDeviceNode.h"

#include "CXErrorAdditions.h"
#include "FrameCopy.h"
#include "LogSink.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

/// Reports that a block threw an exception, and ends the process: the cycle is lost, and the block's state is
/// unknown.
[[noreturn]] void endOfThrowingBlock(const DXRDeviceNode& node, const char* what) noexcept
{
    const CXRealtimeExemption exemption("the process ends");
    dxr::LogSink::log("Error: The IO block of " + node.description() + " threw an exception (" + what +
                      "). The process ends.");
    std::abort();
}

} // namespace

CXRef<DXRDeviceNode> DXRDeviceNode::initWithDevice(const CXRef<DXRDevice>& device,
                                                   const std::optional<Channels>& channels,
                                                   const DXRIOBlock& ioblock)
{
    return device ? CXRef<DXRDeviceNode>::adopt(new DXRDeviceNode(device, channels, ioblock)) : nullptr;
}

DXRDeviceNode::DXRDeviceNode(const CXRef<DXRDevice>& device, const std::optional<Channels>& channels,
                             const DXRIOBlock& ioblock)
    : _device(device), _isInput(device->isInput()), _ioblock(ioblock),
      _channels(channels ? *channels : device->preferredStereoChannels())
{}

DXRDeviceNode::~DXRDeviceNode() = default;

std::vector<std::string> DXRDeviceNode::deviceUIDs() const
{
    return {_device->deviceUID()};
}

bool DXRDeviceNode::isViable() const
{
    return _ioblock && _device->isConnected();
}

bool DXRDeviceNode::startIOWithSampleRate(double sampleRate, uint32_t frameCount,
                                          std::span<const uint32_t> channelMap)
{
    if (!_ioblock)
        return true;
    if (uint64_t{frameCount} * _channels.size() > maxSamples)
        return false;
    const uint32_t deviceChannels = _device->channelCount();
    Channels map;
    _usageMap.clear();
    for (const uint32_t channel : _channels) {
        const uint32_t index = channel - 1; // for channel 0 this wraps to a number that no device has
        const uint32_t entry = index < deviceChannels && index < channelMap.size() ? channelMap[index] : 0;
        map.push_back(entry);
        if (entry != 0 && std::ranges::find(_usageMap, entry) == _usageMap.end())
            _usageMap.push_back(entry);
    }
    _buffer = DXRBuffer::initWithSampleRate(sampleRate, frameCount, static_cast<uint32_t>(_channels.size()));
    if (!_buffer)
        return false;
    _channelMap = std::move(map);
    _hostTimeOffset = 0;
    return true;
}

void DXRDeviceNode::performIOWithSampleTime(uint64_t sampleTime, const DXRChannelEntry* samples,
                                            uint64_t hostTime) noexcept
{
    if (!_ioblock || !_channelMap)
        return;
    const FrameBlock frames{_buffer->samples(), _buffer->channelCount(), _buffer->frameCount()};
    if (samples && _isInput)
        copyEntriesToFrames(samples, *_channelMap, frames);
    else if (samples)
        copyFramesToEntries(frames, *_channelMap, samples);
    else if (_isInput)
        _buffer->mute();
    _buffer->setHostTime(hostTime != 0 ? hostTime + static_cast<uint64_t>(_hostTimeOffset) : 0);
    _callBlock(sampleTime);
}

void DXRDeviceNode::stopIO()
{
    _channelMap.reset();
    _usageMap.clear();
    _buffer = nullptr;
}

void DXRDeviceNode::_callBlock(uint64_t sampleTime) noexcept
{
    try {
        _ioblock(sampleTime, *_buffer);
    } catch (const std::exception& exception) {
        endOfThrowingBlock(*this, exception.what());
    } catch (...) {
        endOfThrowingBlock(*this, "of an unknown kind");
    }
}

std::string DXRDeviceNode::description() const
{
    char text[80];
    std::snprintf(text, sizeof text, "<%s: %p, %s, ", className(), static_cast<const void*>(this),
                  _isInput ? "input" : "output");
    return text + _device->deviceUID() + ">";
}
