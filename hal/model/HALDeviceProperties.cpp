#include "HALDeviceProperties.h"

#include "HALTranslations.h"

#include <algorithm>

namespace {

using Address = AudioObjectPropertyAddress;

constexpr HALStatus done = kAudioHardwareNoError;
constexpr HALStatus unknown = kAudioHardwareUnknownPropertyError;

// ---- Devices

/// One read of a device's property.
struct DeviceRead {
    const HALDeviceView& device;
    const HALDeviceState& state;
    std::optional<HALDirection> direction; // empty in the global scope
    uint32_t element;

    const HALDirectionState& side() const { return state[*direction]; } // not in the global scope
};

enum class Scopes { Global, Direction, Every };
enum class Elements { Main, Channels }; // Channels includes the main element

struct DeviceProperty {
    uint32_t selector;
    Scopes scopes;
    Elements elements;
    HALStatus (*read)(const DeviceRead&, HALPropertyWriter&);
};

HALStatus put(HALPropertyWriter& writer, const auto& value)
{
    writer.put(value);
    return done;
}

HALStatus putText(HALPropertyWriter& writer, const std::optional<std::string>& text)
{
    if (!text)
        return unknown;
    writer.putString(*text);
    return done;
}

template <class Value> HALStatus putOptional(HALPropertyWriter& writer, const std::optional<Value>& value)
{
    return value ? put(writer, *value) : unknown;
}

bool isAggregate(const HALDeviceState& state)
{
    return state.transportType == kAudioDeviceTransportTypeAggregate;
}

/// The streams of the read's direction, or of both, inputs first.
std::vector<const HALStreamState*> streamsOf(const DeviceRead& read)
{
    std::vector<const HALStreamState*> streams;
    for (const HALDirection direction : halDirections) {
        if (read.direction && *read.direction != direction)
            continue;
        for (const HALStreamState& stream : read.state[direction].streams)
            streams.push_back(&stream);
    }
    return streams;
}

HALStatus readStreamIDs(const DeviceRead& read, HALPropertyWriter& writer)
{
    for (const HALStreamState* stream : streamsOf(read))
        writer.put(stream->objectID);
    return done;
}

HALStatus readStreamConfiguration(const DeviceRead& read, HALPropertyWriter& writer)
{
    const std::vector<const HALStreamState*> streams = streamsOf(read);
    writer.put(static_cast<uint64_t>(streams.size())); // the count and the padding before the first buffer
    for (const HALStreamState* stream : streams)
        writer.put(AudioBuffer{stream->channelCount, 0, nullptr});
    return done;
}

std::optional<float> volumeOf(const DeviceRead& read)
{
    const HALDirectionState& side = read.side();
    if (read.element == 0)
        return side.mainVolume;
    return read.element <= side.channelVolumes.size() ? side.channelVolumes[read.element - 1] : std::nullopt;
}

HALStatus readElementName(const DeviceRead& read, HALPropertyWriter& writer)
{
    const std::vector<std::string>& names = read.side().channelNames;
    if (read.element == 0 || read.element > names.size())
        return unknown;
    writer.putString(names[read.element - 1]);
    return done;
}

HALStatus readCanBeDefault(const DeviceRead& read, HALPropertyWriter& writer)
{
    return put(writer, uint32_t{read.side().canBeDefault && !read.side().streams.empty()});
}

HALStatus readDataSources(const DeviceRead& read, HALPropertyWriter& writer)
{
    if (read.side().dataSources.empty())
        return unknown;
    for (const HALDataSourceState& source : read.side().dataSources)
        writer.put(source.sourceID);
    return done;
}

HALStatus readActiveSubDevices(const DeviceRead& read, HALPropertyWriter& writer)
{
    if (!read.state.aggregate)
        return unknown;
    for (const AudioObjectID deviceID : read.state.aggregate->activeSubDevices)
        writer.put(deviceID);
    return done;
}

HALStatus readComposition(const DeviceRead& read, HALPropertyWriter& writer)
{
    if (!read.state.aggregate)
        return unknown;
    writer.putValue(read.state.aggregate->composition);
    return done;
}

using R = const DeviceRead&;
using W = HALPropertyWriter&;

constexpr DeviceProperty deviceProperties[] = {
    {kAudioDevicePropertyNominalSampleRate, Scopes::Every, Elements::Main,
     [](R read, W writer) { return put(writer, read.state.nominalSampleRate); }},
    {kAudioDevicePropertyActualSampleRate, Scopes::Every, Elements::Main,
     [](R read, W writer) {
         const HALDeviceState& state = read.state;
         return put(writer, state.actualSampleRate > 0.0 ? state.actualSampleRate : state.nominalSampleRate);
     }},
    {kAudioDevicePropertyAvailableNominalSampleRates, Scopes::Every, Elements::Main,
     [](R read, W writer) {
         for (const AudioValueRange& range : read.state.sampleRates)
             writer.put(range);
         return done;
     }},
    {kAudioDevicePropertyBufferFrameSize, Scopes::Every, Elements::Main,
     [](R read, W writer) { return put(writer, read.state.bufferFrameSize); }},
    {kAudioDevicePropertyBufferFrameSizeRange, Scopes::Every, Elements::Main,
     [](R read, W writer) { return put(writer, read.state.bufferFrameSizeRange); }},
    {kAudioDevicePropertyTransportType, Scopes::Every, Elements::Main,
     [](R read, W writer) { return put(writer, read.state.transportType); }},
    {kAudioDevicePropertyDeviceIsRunning, Scopes::Every, Elements::Main,
     [](R read, W writer) {
         const bool runsHere = read.device.isRunning && !read.state.isStalled;
         return put(writer, uint32_t{runsHere || read.state.isRunningElsewhere});
     }},
    {kAudioDevicePropertyIsHidden, Scopes::Every, Elements::Main,
     [](R read, W writer) { return put(writer, uint32_t{read.state.isHidden}); }},
    {kAudioDevicePropertyClockDomain, Scopes::Every, Elements::Main,
     [](R read, W writer) { return put(writer, read.state.clockDomain); }},
    {kAudioDevicePropertyStreams, Scopes::Every, Elements::Main, readStreamIDs},
    {kAudioObjectPropertyOwnedObjects, Scopes::Every, Elements::Main, readStreamIDs},
    {kAudioDevicePropertyStreamConfiguration, Scopes::Every, Elements::Main, readStreamConfiguration},

    {kAudioObjectPropertyClass, Scopes::Global, Elements::Main,
     [](R read, W writer) {
         return put(writer, isAggregate(read.state) ? kAudioAggregateDeviceClassID : kAudioDeviceClassID);
     }},
    {kAudioObjectPropertyBaseClass, Scopes::Global, Elements::Main,
     [](R read, W writer) {
         return put(writer, isAggregate(read.state) ? kAudioDeviceClassID : kAudioObjectClassID);
     }},
    {kAudioObjectPropertyOwner, Scopes::Global, Elements::Main,
     [](R, W writer) { return put(writer, kAudioObjectSystemObject); }},
    {kAudioDevicePropertyRelatedDevices, Scopes::Global, Elements::Main,
     [](R read, W writer) { return put(writer, read.device.objectID); }},
    {kAudioDevicePropertyDeviceUID, Scopes::Global, Elements::Main,
     [](R read, W writer) { return putText(writer, read.state.uid); }},
    {kAudioObjectPropertyName, Scopes::Global, Elements::Main,
     [](R read, W writer) { return putText(writer, read.state.name); }},
    {kAudioObjectPropertyManufacturer, Scopes::Global, Elements::Main,
     [](R read, W writer) { return putText(writer, read.state.manufacturer); }},
    {kAudioDevicePropertyModelUID, Scopes::Global, Elements::Main,
     [](R read, W writer) { return putText(writer, read.state.modelUID); }},
    {kAudioAggregateDevicePropertyComposition, Scopes::Global, Elements::Main, readComposition},
    {kAudioAggregateDevicePropertyActiveSubDeviceList, Scopes::Global, Elements::Main, readActiveSubDevices},

    {kAudioDevicePropertyVolumeScalar, Scopes::Direction, Elements::Channels,
     [](R read, W writer) { return putOptional(writer, volumeOf(read)); }},
    {kAudioDevicePropertyVolumeDecibels, Scopes::Direction, Elements::Channels,
     [](R read, W writer) {
         const std::optional<float> volume = volumeOf(read);
         return volume ? put(writer, halDecibelsFromScalar(*volume)) : unknown;
     }},
    {kAudioDevicePropertyVolumeRangeDecibels, Scopes::Direction, Elements::Channels,
     [](R read, W writer) {
         return volumeOf(read) ? put(writer, AudioValueRange{halSilenceDecibels, 0.0}) : unknown;
     }},
    {kAudioObjectPropertyElementName, Scopes::Direction, Elements::Channels, readElementName},
    {kAudioDevicePropertyLatency, Scopes::Direction, Elements::Main,
     [](R read, W writer) { return put(writer, read.side().latencyFrames); }},
    {kAudioDevicePropertySafetyOffset, Scopes::Direction, Elements::Main,
     [](R read, W writer) { return put(writer, read.side().safetyOffsetFrames); }},
    {kAudioDevicePropertyDeviceCanBeDefaultDevice, Scopes::Direction, Elements::Main, readCanBeDefault},
    {kAudioDevicePropertyDeviceCanBeDefaultSystemDevice, Scopes::Direction, Elements::Main, readCanBeDefault},
    {kAudioDevicePropertyPreferredChannelsForStereo, Scopes::Direction, Elements::Main,
     [](R read, W writer) { return putOptional(writer, read.side().stereoChannels); }},
    {kAudioDevicePropertyMute, Scopes::Direction, Elements::Main,
     [](R read, W writer) {
         const std::optional<bool>& muted = read.side().muted;
         return muted ? put(writer, uint32_t{*muted}) : unknown;
     }},
    {kAudioDevicePropertyDataSource, Scopes::Direction, Elements::Main,
     [](R read, W writer) { return putOptional(writer, read.side().dataSourceID); }},
    {kAudioDevicePropertyDataSources, Scopes::Direction, Elements::Main, readDataSources},
    {kAudioDevicePropertyDataSourceNameForIDCFString, Scopes::Direction, Elements::Main,
     [](R read, W writer) { return halReadSourceName(read.side(), writer); }},
};

bool takesScope(const DeviceProperty& property, const std::optional<HALDirection>& direction)
{
    return property.scopes == Scopes::Every ||
           (property.scopes == Scopes::Direction) == direction.has_value();
}

// ---- Streams

struct StreamRead {
    const HALDeviceView& device;
    HALDirection direction;
    size_t index;

    const HALStreamState& stream() const { return device.state[direction].streams[index]; }
};

HALStatus readFirstChannel(const StreamRead& read, HALPropertyWriter& writer)
{
    uint32_t first = 1;
    std::for_each_n(read.device.state[read.direction].streams.begin(), read.index,
                    [&](const HALStreamState& each) { first += each.channelCount; });
    return put(writer, first);
}

HALStatus readFormat(const StreamRead& read, HALPropertyWriter& writer)
{
    return put(writer, halStreamFormat(read.stream().channelCount, read.device.state.nominalSampleRate));
}

HALStatus readFormats(const StreamRead& read, HALPropertyWriter& writer)
{
    for (const AudioValueRange& range : read.device.state.sampleRates) {
        const double rate = range.minimum == range.maximum ? range.minimum : 0.0;
        writer.put(AudioStreamRangedDescription{halStreamFormat(read.stream().channelCount, rate), range});
    }
    return done;
}

using S = const StreamRead&;

// All are properties of the main element, in every scope.
constexpr struct {
    uint32_t selector;
    HALStatus (*read)(const StreamRead&, HALPropertyWriter&);
} streamProperties[] = {
    {kAudioObjectPropertyClass, [](S, W writer) { return put(writer, kAudioStreamClassID); }},
    {kAudioObjectPropertyBaseClass, [](S, W writer) { return put(writer, kAudioObjectClassID); }},
    {kAudioObjectPropertyOwner, [](S read, W writer) { return put(writer, read.device.objectID); }},
    {kAudioStreamPropertyIsActive, [](S, W writer) { return put(writer, uint32_t{1}); }},
    {kAudioStreamPropertyDirection,
     [](S read, W writer) { return put(writer, uint32_t{read.direction == HALDirection::Input}); }},
    {kAudioStreamPropertyTerminalType,
     [](S read, W writer) { return put(writer, read.stream().terminalType); }},
    {kAudioStreamPropertyStartingChannel, readFirstChannel},
    {kAudioStreamPropertyLatency, [](S read, W writer) { return put(writer, read.stream().latencyFrames); }},
    {kAudioStreamPropertyVirtualFormat, readFormat},
    {kAudioStreamPropertyPhysicalFormat, readFormat},
    {kAudioStreamPropertyAvailableVirtualFormats, readFormats},
    {kAudioStreamPropertyAvailablePhysicalFormats, readFormats},
};

// ---- Changes

constexpr std::array allScopes{kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyScopeInput,
                               kAudioObjectPropertyScopeOutput};

/// The value and its status as a string; two strings are equal if a client sees no difference.
std::string recordOf(const auto& read)
{
    std::string record;
    HALPropertyWriter writer(record);
    const HALStatus status = read(writer);
    return status == done ? "=" + record : std::string();
}

size_t elementCountOf(const HALDeviceState& state)
{
    size_t count = 1;
    for (const HALDirectionState& side : state.directions)
        count = std::max({count, side.channelVolumes.size() + 1, side.channelNames.size() + 1});
    return count;
}

void addDeviceChanges(const HALDeviceView& before, const HALDeviceView& after, std::vector<Address>& changed)
{
    const size_t channelElements = std::max(elementCountOf(before.state), elementCountOf(after.state));
    for (const DeviceProperty& property : deviceProperties)
        for (const uint32_t scope : allScopes) {
            const std::optional<HALDirection> direction = halDirectionOfScope(scope);
            if (!takesScope(property, direction))
                continue;
            const size_t elements = property.elements == Elements::Main ? 1 : channelElements;
            for (uint32_t element = 0; element < elements; ++element) {
                const auto valueIn = [&](const HALDeviceView& view) {
                    const DeviceRead read{view, view.state, direction, element};
                    return recordOf([&](HALPropertyWriter& writer) { return property.read(read, writer); });
                };
                if (valueIn(before) != valueIn(after))
                    changed.push_back({property.selector, scope, element});
            }
        }
}

/// Adds two changes that the comparison of values does not find. Clients listen on the device for the format
/// of its streams in a direction, although they read it from the streams. The current source is announced
/// together with the list of sources, because its name may have changed.
void addDependentChanges(std::vector<Address>& changed, const std::vector<HALObjectChange>& streams,
                         const HALDeviceState& after)
{
    const auto has = [&](uint32_t selector, uint32_t scope) {
        return std::ranges::find(changed, Address{selector, scope, 0}) != changed.end();
    };
    for (const HALDirection direction : halDirections) {
        const uint32_t scope = halScope(direction);
        if (has(kAudioDevicePropertyDataSourceNameForIDCFString, scope) &&
            !has(kAudioDevicePropertyDataSource, scope))
            changed.push_back({kAudioDevicePropertyDataSource, scope, 0});
        const std::vector<HALStreamState>& own = after[direction].streams;
        const bool streamChanged = std::ranges::any_of(own, [&](const HALStreamState& stream) {
            return std::ranges::find(streams, stream.objectID, &HALObjectChange::objectID) != streams.end();
        });
        if (!own.empty() && (streamChanged || has(kAudioDevicePropertyStreams, scope)))
            changed.push_back({kAudioStreamPropertyVirtualFormat, scope, 0});
    }
}

std::vector<Address> streamChanges(const StreamRead& before, const StreamRead& after)
{
    std::vector<Address> changed;
    for (const auto& property : streamProperties) {
        const auto valueIn = [&](const StreamRead& read) {
            return recordOf([&](HALPropertyWriter& writer) { return property.read(read, writer); });
        };
        if (valueIn(before) == valueIn(after))
            continue;
        for (const uint32_t scope : allScopes)
            changed.push_back({property.selector, scope, 0});
    }
    return changed;
}

std::vector<HALObjectChange> allStreamChanges(const HALDeviceView& before, const HALDeviceView& after)
{
    std::vector<HALObjectChange> all;
    for (const HALDirection direction : halDirections) {
        const std::vector<HALStreamState>& old = before.state[direction].streams;
        const std::vector<HALStreamState>& now = after.state[direction].streams;
        for (size_t index = 0; index < std::min(old.size(), now.size()); ++index) {
            if (old[index].objectID != now[index].objectID)
                continue;
            std::vector<Address> changed =
                streamChanges({before, direction, index}, {after, direction, index});
            if (!changed.empty())
                all.push_back({now[index].objectID, std::move(changed)});
        }
    }
    return all;
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

HALStatus halReadDevice(const HALDeviceView& device, const Address& address, HALPropertyWriter& writer)
{
    const std::optional<HALDirection> direction = halDirectionOfScope(address.scope);
    const auto property = std::ranges::find(deviceProperties, address.selector, &DeviceProperty::selector);
    if (property == std::end(deviceProperties) ||
        (address.scope != kAudioObjectPropertyScopeGlobal && !direction) ||
        !takesScope(*property, direction) ||
        (property->elements == Elements::Main && address.element != kAudioObjectPropertyElementMain))
        return unknown;
    return property->read({device, device.state, direction, address.element}, writer);
}

HALStatus halReadStream(const HALDeviceView& device, HALDirection direction, size_t index,
                        const Address& address, HALPropertyWriter& writer)
{
    if (address.element != kAudioObjectPropertyElementMain)
        return unknown;
    for (const auto& property : streamProperties)
        if (property.selector == address.selector)
            return property.read({device, direction, index}, writer);
    return unknown;
}

std::vector<HALObjectChange> halChanges(const HALDeviceView& before, const HALDeviceView& after)
{
    if (before.isRunning == after.isRunning && before.state == after.state)
        return {};
    std::vector<HALObjectChange> changes = allStreamChanges(before, after);
    HALObjectChange own{after.objectID, {}};
    addDeviceChanges(before, after, own.addresses);
    addDependentChanges(own.addresses, changes, after.state);
    if (!own.addresses.empty())
        changes.push_back(std::move(own));
    return changes;
}
