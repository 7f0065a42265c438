#include "HALDeviceWrites.h"

#include "CXValue.h"
#include "HALTranslations.h"
#include "Utf8.h"

#include <algorithm>
#include <cmath>

namespace {

using Address = AudioObjectPropertyAddress;

/// One write, with the state of the device at its beginning.
struct Write {
    HALDevice& device;
    const HALDeviceState state;
    std::span<const std::byte> value;
    HALDeadline deadline;
};

HALStatus writeSampleRate(const Write& write)
{
    double rate = 0.0;
    if (const HALStatus status = halTakeValue(write.value, rate))
        return status;
    if (!write.state.canSampleRate(rate))
        return kAudioHardwareIllegalOperationError;
    return write.device.driver().setNominalSampleRate(rate, write.deadline);
}

HALStatus writeBufferFrameSize(const Write& write)
{
    uint32_t frameCount = 0;
    if (const HALStatus status = halTakeValue(write.value, frameCount))
        return status;
    const AudioValueRange& range = write.state.bufferFrameSizeRange;
    if (frameCount < range.minimum || frameCount > range.maximum)
        return kAudioHardwareIllegalOperationError;
    return write.device.driver().setBufferFrameSize(frameCount, write.deadline);
}

HALStatus writeVolume(const Write& write, HALDirection direction, const Address& address)
{
    float volume = 0.0F;
    if (const HALStatus status = halTakeValue(write.value, volume))
        return status;
    if (std::isnan(volume))
        return kAudioHardwareIllegalOperationError;
    if (address.selector == kAudioDevicePropertyVolumeDecibels)
        volume = halScalarFromDecibels(volume);
    return write.device.driver().setVolume(direction, address.element, std::clamp(volume, 0.0F, 1.0F),
                                           write.deadline);
}

HALStatus writeMute(const Write& write, HALDirection direction)
{
    uint32_t muted = 0;
    const HALStatus status = halTakeValue(write.value, muted);
    return status ? status : write.device.driver().setMuted(direction, muted != 0, write.deadline);
}

HALStatus writeDataSource(const Write& write, HALDirection direction)
{
    uint32_t sourceID = 0;
    if (const HALStatus status = halTakeValue(write.value, sourceID))
        return status;
    const std::vector<HALDataSourceState>& sources = write.state[direction].dataSources;
    if (std::ranges::find(sources, sourceID, &HALDataSourceState::sourceID) == sources.end())
        return kAudioHardwareIllegalOperationError;
    return write.device.driver().setDataSource(direction, sourceID, write.deadline);
}

HALStatus writeName(const Write& write)
{
    const CXObject* object = nullptr;
    if (const HALStatus status = halTakeValue(write.value, object))
        return status;
    const auto* name = dynamic_cast<const CXValue*>(object);
    if (!name || !name->plist().is_string())
        return kAudioHardwareIllegalOperationError;
    return write.device.driver().setName(dxr::utf8Replaced(name->string()), write.deadline);
}

} // namespace

HALStatus halWriteDevice(HALDevice& device, const Address& address, std::span<const std::byte> value,
                         HALDeadline deadline)
{
    const std::optional<HALDirection> direction = halDirectionOfScope(address.scope);
    if (address.selector == kAudioDevicePropertyIOProcStreamUsage && direction &&
        address.element == kAudioObjectPropertyElementMain)
        return halWriteStreamUsage(*device.table(), *direction, value);
    HALPropertyWriter counter;
    if (const HALStatus status = device.readProperty(address, counter)) // fails if there is no such property
        return status;
    const Write write{device, device.state(), value, deadline};
    switch (address.selector) {
    case kAudioDevicePropertyNominalSampleRate:
        return writeSampleRate(write);
    case kAudioDevicePropertyBufferFrameSize:
        return writeBufferFrameSize(write);
    case kAudioDevicePropertyVolumeScalar:
    case kAudioDevicePropertyVolumeDecibels:
        return writeVolume(write, *direction, address);
    case kAudioDevicePropertyMute:
        return writeMute(write, *direction);
    case kAudioDevicePropertyDataSource:
        return writeDataSource(write, *direction);
    case kAudioObjectPropertyName:
        return writeName(write);
    default:
        return kAudioHardwareIllegalOperationError;
    }
}

HALStatus halWriteStream(HALDevice& device, AudioObjectID streamID, const Address& address,
                         std::span<const std::byte> value, HALDeadline deadline)
{
    if (address.selector != kAudioStreamPropertyVirtualFormat &&
        address.selector != kAudioStreamPropertyPhysicalFormat)
        return kAudioHardwareIllegalOperationError;
    AudioStreamBasicDescription wanted{};
    if (const HALStatus status = halTakeValue(value, wanted))
        return status;
    const HALDeviceState state = device.state();
    for (const HALDirectionState& side : state.directions)
        for (const HALStreamState& stream : side.streams) {
            if (stream.objectID != streamID)
                continue;
            // Samples are always floats, so a client can only choose the rate.
            if (wanted != halStreamFormat(stream.channelCount, wanted.sampleRate) ||
                !state.canSampleRate(wanted.sampleRate))
                return kAudioHardwareIllegalOperationError;
            return device.driver().setNominalSampleRate(wanted.sampleRate, deadline);
        }
    return kAudioHardwareBadObjectError;
}
