#include "HALDeviceProperties.h"

#include <algorithm>

namespace {

using Address = AudioObjectPropertyAddress;

constexpr HALStatus done = kAudioHardwareNoError;
constexpr HALStatus unknown = kAudioHardwareUnknownPropertyError;

HALStatus answerText(const std::optional<std::string>& text, HALPropertyWriter& writer)
{
    if (!text)
        return unknown;
    writer.putString(*text);
    return done;
}

template <class Value> HALStatus answerOptional(const std::optional<Value>& value, HALPropertyWriter& writer)
{
    if (!value)
        return unknown;
    writer.put(*value);
    return done;
}

/// Properties of the whole device, the same in every scope.
HALStatus answerWhole(const HALDeviceView& device, uint32_t selector, HALPropertyWriter& writer)
{
    const HALDeviceState& state = device.state;
    switch (selector) {
    case kAudioDevicePropertyNominalSampleRate:
        writer.put(state.nominalSampleRate);
        return done;
    case kAudioDevicePropertyActualSampleRate:
        writer.put(state.actualSampleRate > 0.0 ? state.actualSampleRate : state.nominalSampleRate);
        return done;
    case kAudioDevicePropertyAvailableNominalSampleRates:
        for (const AudioValueRange& range : state.sampleRates)
            writer.put(range);
        return done;
    case kAudioDevicePropertyBufferFrameSize:
        writer.put(state.bufferFrameSize);
        return done;
    case kAudioDevicePropertyBufferFrameSizeRange:
        writer.put(state.bufferFrameSizeRange);
        return done;
    case kAudioDevicePropertyTransportType:
        writer.put(state.transportType);
        return done;
    case kAudioDevicePropertyDeviceIsRunning:
        writer.put(uint32_t{(device.isRunning && !state.isStalled) || state.isRunningElsewhere});
        return done;
    case kAudioDevicePropertyIsHidden:
        writer.put(uint32_t{state.isHidden});
        return done;
    case kAudioDevicePropertyClockDomain:
        writer.put(state.clockDomain);
        return done;
    default:
        return unknown;
    }
}

HALStatus answerIdentity(const HALDeviceView& device, uint32_t selector, HALPropertyWriter& writer)
{
    const HALDeviceState& state = device.state;
    switch (selector) {
    case kAudioObjectPropertyClass:
        writer.put(state.transportType == kAudioDeviceTransportTypeAggregate ? kAudioAggregateDeviceClassID
                                                                             : kAudioDeviceClassID);
        return done;
    case kAudioObjectPropertyBaseClass:
        writer.put(state.transportType == kAudioDeviceTransportTypeAggregate ? kAudioDeviceClassID
                                                                             : kAudioObjectClassID);
        return done;
    case kAudioObjectPropertyOwner:
        writer.put(kAudioObjectSystemObject);
        return done;
    case kAudioDevicePropertyRelatedDevices:
        writer.put(device.objectID);
        return done;
    case kAudioDevicePropertyDeviceUID:
        writer.putString(state.uid);
        return done;
    case kAudioObjectPropertyName:
        writer.putString(state.name);
        return done;
    case kAudioObjectPropertyManufacturer:
        return answerText(state.manufacturer, writer);
    case kAudioDevicePropertyModelUID:
        return answerText(state.modelUID, writer);
    default:
        return unknown;
    }
}

HALStatus answerAggregate(const HALAggregateState& aggregate, uint32_t selector, HALPropertyWriter& writer)
{
    switch (selector) {
    case kAudioAggregateDevicePropertyComposition:
        writer.putValue(aggregate.composition);
        return done;
    case kAudioAggregateDevicePropertyActiveSubDeviceList:
        for (const AudioObjectID deviceID : aggregate.activeSubDevices)
            writer.put(deviceID);
        return done;
    default:
        return unknown;
    }
}

/// Stream lists: of one direction, or in the global scope of both, inputs first.
HALStatus answerStreams(const HALDeviceView& device, const Address& address, HALPropertyWriter& writer)
{
    const std::optional<HALDirection> only = halDirectionOfScope(address.scope);
    std::vector<const HALStreamState*> streams;
    for (const HALDirection direction : halDirections) {
        if (only && *only != direction)
            continue;
        for (const HALStreamState& stream : device.state[direction].streams)
            streams.push_back(&stream);
    }
    if (address.selector == kAudioDevicePropertyStreamConfiguration) {
        writer.put(
            static_cast<uint64_t>(streams.size())); // the count, and the padding before the first buffer
        for (const HALStreamState* stream : streams)
            writer.put(AudioBuffer{stream->channelCount, 0, nullptr});
    } else {
        for (const HALStreamState* stream : streams)
            writer.put(stream->objectID);
    }
    return done;
}

std::optional<float> volumeAt(const HALDirectionState& state, uint32_t element)
{
    if (element == 0)
        return state.mainVolume;
    return element <= state.channelVolumes.size() ? state.channelVolumes[element - 1] : std::nullopt;
}

HALStatus answerVolume(const HALDirectionState& state, const Address& address, HALPropertyWriter& writer)
{
    const std::optional<float> volume = volumeAt(state, address.element);
    if (!volume)
        return unknown;
    switch (address.selector) {
    case kAudioDevicePropertyVolumeScalar:
        writer.put(*volume);
        return done;
    case kAudioDevicePropertyVolumeDecibels:
        writer.put(halDecibelsFromScalar(*volume));
        return done;
    default:
        writer.put(AudioValueRange{halSilenceDecibels, 0.0});
        return done;
    }
}

HALStatus answerElementName(const HALDirectionState& state, uint32_t element, HALPropertyWriter& writer)
{
    if (element == 0 || element > state.channelNames.size())
        return unknown;
    writer.putString(state.channelNames[element - 1]);
    return done;
}

HALStatus answerDirection(const HALDirectionState& state, uint32_t selector, HALPropertyWriter& writer)
{
    switch (selector) {
    case kAudioDevicePropertyLatency:
        writer.put(state.latencyFrames);
        return done;
    case kAudioDevicePropertySafetyOffset:
        writer.put(state.safetyOffsetFrames);
        return done;
    case kAudioDevicePropertyDeviceCanBeDefaultDevice:
    case kAudioDevicePropertyDeviceCanBeDefaultSystemDevice:
        writer.put(uint32_t{state.canBeDefault && !state.streams.empty()});
        return done;
    case kAudioDevicePropertyPreferredChannelsForStereo:
        return answerOptional(state.stereoChannels, writer);
    case kAudioDevicePropertyMute:
        if (!state.muted)
            return unknown;
        writer.put(uint32_t{*state.muted});
        return done;
    case kAudioDevicePropertyDataSource:
        return answerOptional(state.dataSourceID, writer);
    case kAudioDevicePropertyDataSources:
        if (state.dataSources.empty())
            return unknown;
        for (const HALDataSourceState& source : state.dataSources)
            writer.put(source.sourceID);
        return done;
    default:
        return unknown;
    }
}

} // namespace

AudioStreamBasicDescription halStreamFormat(uint32_t channelCount, double rate) noexcept
{
    const uint32_t frameBytes = channelCount * static_cast<uint32_t>(sizeof(float));
    return {rate,
            kAudioFormatLinearPCM,
            kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked,
            frameBytes,
            1,
            frameBytes,
            channelCount,
            32,
            0};
}

std::optional<HALDirection> halDirectionOfScope(uint32_t scope) noexcept
{
    if (scope == kAudioObjectPropertyScopeInput)
        return HALDirection::Input;
    if (scope == kAudioObjectPropertyScopeOutput)
        return HALDirection::Output;
    return std::nullopt;
}

HALStatus halAnswerDevice(const HALDeviceView& device, const Address& address, HALPropertyWriter& writer)
{
    const std::optional<HALDirection> direction = halDirectionOfScope(address.scope);
    const bool isGlobal = address.scope == kAudioObjectPropertyScopeGlobal;
    if (!isGlobal && !direction)
        return unknown;
    switch (address.selector) {
    case kAudioDevicePropertyVolumeScalar:
    case kAudioDevicePropertyVolumeDecibels:
    case kAudioDevicePropertyVolumeRangeDecibels:
        return direction ? answerVolume(device.state[*direction], address, writer) : unknown;
    case kAudioObjectPropertyElementName:
        return direction ? answerElementName(device.state[*direction], address.element, writer) : unknown;
    default:
        break;
    }
    if (address.element != kAudioObjectPropertyElementMain)
        return unknown;
    switch (address.selector) {
    case kAudioDevicePropertyStreams:
    case kAudioDevicePropertyStreamConfiguration:
    case kAudioObjectPropertyOwnedObjects:
        return answerStreams(device, address, writer);
    default:
        break;
    }
    HALStatus status = answerWhole(device, address.selector, writer);
    if (status == unknown && isGlobal)
        status = answerIdentity(device, address.selector, writer);
    if (status == unknown && isGlobal && device.state.aggregate)
        status = answerAggregate(*device.state.aggregate, address.selector, writer);
    if (status == unknown && direction)
        status = answerDirection(device.state[*direction], address.selector, writer);
    return status;
}

HALStatus halAnswerStream(const HALDeviceView& device, HALDirection direction, size_t index,
                          const Address& address, HALPropertyWriter& writer)
{
    const std::vector<HALStreamState>& streams = device.state[direction].streams;
    const HALStreamState& stream = streams[index];
    if (address.element != kAudioObjectPropertyElementMain)
        return unknown;
    switch (address.selector) {
    case kAudioObjectPropertyClass:
        writer.put(kAudioStreamClassID);
        return done;
    case kAudioObjectPropertyBaseClass:
        writer.put(kAudioObjectClassID);
        return done;
    case kAudioObjectPropertyOwner:
        writer.put(device.objectID);
        return done;
    case kAudioStreamPropertyIsActive:
        writer.put(uint32_t{1});
        return done;
    case kAudioStreamPropertyDirection:
        writer.put(uint32_t{direction == HALDirection::Input});
        return done;
    case kAudioStreamPropertyTerminalType:
        writer.put(stream.terminalType);
        return done;
    case kAudioStreamPropertyStartingChannel: {
        uint32_t first = 1;
        std::for_each_n(streams.begin(), index,
                        [&](const HALStreamState& each) { first += each.channelCount; });
        writer.put(first);
        return done;
    }
    case kAudioStreamPropertyLatency:
        writer.put(stream.latencyFrames);
        return done;
    case kAudioStreamPropertyVirtualFormat:
    case kAudioStreamPropertyPhysicalFormat:
        writer.put(halStreamFormat(stream.channelCount, device.state.nominalSampleRate));
        return done;
    case kAudioStreamPropertyAvailableVirtualFormats:
    case kAudioStreamPropertyAvailablePhysicalFormats:
        for (const AudioValueRange& range : device.state.sampleRates) {
            const double rate = range.minimum == range.maximum ? range.minimum : 0.0;
            writer.put(AudioStreamRangedDescription{halStreamFormat(stream.channelCount, rate), range});
        }
        return done;
    default:
        return unknown;
    }
}
