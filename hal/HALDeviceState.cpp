#include "HALDeviceState.h"

#include <algorithm>
#include <cmath>

namespace {

using Address = AudioObjectPropertyAddress;

class Changes {
public:
    void note(bool changed, uint32_t selector, uint32_t scope = kAudioObjectPropertyScopeGlobal,
              uint32_t element = 0)
    {
        if (changed)
            _all.push_back({selector, scope, element});
    }
    std::vector<Address> take() { return std::move(_all); }

private:
    std::vector<Address> _all;
};

std::optional<float> volumeOf(const HALDirectionState& direction, size_t element)
{
    if (element == 0)
        return direction.mainVolume;
    return element <= direction.channelVolumes.size() ? direction.channelVolumes[element - 1] : std::nullopt;
}

void noteDirection(Changes& changes, uint32_t scope, bool ratesChanged, const HALDirectionState& before,
                   const HALDirectionState& after)
{
    const bool streamsChanged = before.streams != after.streams;
    changes.note(streamsChanged, kAudioDevicePropertyStreams, scope);
    changes.note(streamsChanged, kAudioDevicePropertyStreamConfiguration, scope);
    changes.note(before.dataSources != after.dataSources, kAudioDevicePropertyDataSources, scope);
    // The current source is told of with the list, and the format with all that it is made of: clients listen
    // to one of them.
    changes.note(before.dataSourceID != after.dataSourceID || before.dataSources != after.dataSources,
                 kAudioDevicePropertyDataSource, scope);
    changes.note(!after.streams.empty() && (streamsChanged || ratesChanged),
                 kAudioStreamPropertyVirtualFormat, scope);
    changes.note(before.muted != after.muted, kAudioDevicePropertyMute, scope);
    changes.note(before.stereoChannels != after.stereoChannels,
                 kAudioDevicePropertyPreferredChannelsForStereo, scope);
    changes.note(before.latencyFrames != after.latencyFrames, kAudioDevicePropertyLatency, scope);
    changes.note(before.safetyOffsetFrames != after.safetyOffsetFrames, kAudioDevicePropertySafetyOffset,
                 scope);
    changes.note(before.canBeDefault != after.canBeDefault, kAudioDevicePropertyDeviceCanBeDefaultDevice,
                 scope);
    const size_t elements = std::max(before.channelVolumes.size(), after.channelVolumes.size()) + 1;
    for (size_t element = 0; element < elements; ++element) {
        const bool moved = volumeOf(before, element) != volumeOf(after, element);
        changes.note(moved, kAudioDevicePropertyVolumeScalar, scope, static_cast<uint32_t>(element));
        changes.note(moved, kAudioDevicePropertyVolumeDecibels, scope, static_cast<uint32_t>(element));
    }
}

} // namespace

uint32_t HALDirectionState::channelCount() const noexcept
{
    uint32_t count = 0;
    for (const HALStreamState& stream : streams)
        count += stream.channelCount;
    return count;
}

bool HALDeviceState::canSampleRate(double rate) const noexcept
{
    return std::ranges::any_of(sampleRates, [rate](const AudioValueRange& range) {
        return range.minimum <= rate && rate <= range.maximum;
    });
}

std::vector<Address> halChangedAddresses(const HALDeviceState& before, const HALDeviceState& after)
{
    Changes changes;
    changes.note(before.name != after.name, kAudioObjectPropertyName);
    changes.note(before.manufacturer != after.manufacturer, kAudioObjectPropertyManufacturer);
    changes.note(before.modelUID != after.modelUID, kAudioDevicePropertyModelUID);
    changes.note(before.transportType != after.transportType, kAudioDevicePropertyTransportType);
    if (before.aggregate && after.aggregate) {
        changes.note(before.aggregate->composition != after.aggregate->composition,
                     kAudioAggregateDevicePropertyComposition);
        changes.note(before.aggregate->activeSubDevices != after.aggregate->activeSubDevices,
                     kAudioAggregateDevicePropertyActiveSubDeviceList);
    }
    changes.note(before.isHidden != after.isHidden, kAudioDevicePropertyIsHidden);
    changes.note(before.isRunningElsewhere != after.isRunningElsewhere || before.isStalled != after.isStalled,
                 kAudioDevicePropertyDeviceIsRunning);
    changes.note(before.clockDomain != after.clockDomain, kAudioDevicePropertyClockDomain);
    changes.note(before.nominalSampleRate != after.nominalSampleRate, kAudioDevicePropertyNominalSampleRate);
    changes.note(before.actualSampleRate != after.actualSampleRate, kAudioDevicePropertyActualSampleRate);
    changes.note(before.sampleRates != after.sampleRates, kAudioDevicePropertyAvailableNominalSampleRates);
    changes.note(before.bufferFrameSize != after.bufferFrameSize, kAudioDevicePropertyBufferFrameSize);
    changes.note(before.bufferFrameSizeRange != after.bufferFrameSizeRange,
                 kAudioDevicePropertyBufferFrameSizeRange);
    const bool ratesChanged =
        before.nominalSampleRate != after.nominalSampleRate || before.sampleRates != after.sampleRates;
    for (const HALDirection direction : halDirections)
        noteDirection(changes, halScope(direction), ratesChanged, before[direction], after[direction]);
    return changes.take();
}

float halDecibelsFromScalar(float scalar) noexcept
{
    if (!(scalar > 0.0F))
        return halSilenceDecibels;
    return std::max(halSilenceDecibels, 60.0F * std::log10(scalar)); // amplitude is the cube of the scalar
}

float halScalarFromDecibels(float decibels) noexcept
{
    if (!(decibels > halSilenceDecibels))
        return 0.0F;
    return std::pow(10.0F, decibels / 60.0F);
}
