#include "HALModelAggregates.h"

#include "CXValue.h"
#include "Utf8.h"

#include <cstring>

HALStatus HALModelBackend::createAggregateDevice(const CXValue& description, AudioObjectID& deviceID)
{
    std::optional<AggregateDescription> valid = AggregateDescription::of(description.plist());
    if (!valid)
        return kAudioHardwareIllegalOperationError;
    waitUntilEnumerated();
    const std::scoped_lock creation(_creationMutex);
    if (deviceWithUID(valid->uid) != kAudioObjectUnknown)
        return kAudioHardwareIllegalOperationError;
    const auto aggregate = AggregateDevice::initWithDescription(*_aggregates, std::move(*valid));
    deviceID = addDevice(aggregate->initialState(), [&](AudioObjectID newID) {
        aggregate->setObjectID(newID);
        _aggregates->add(newID, aggregate);
    });
    _aggregates->devicesChanged(); // what changed since it looked
    return kAudioHardwareNoError;
}

HALStatus HALModelBackend::destroyAggregateDevice(AudioObjectID deviceID)
{
    if (HALIOProcTable::onIOThreadOf(deviceID))
        return kAudioHardwareIllegalOperationError;
    const CXRef<AggregateDevice> aggregate = _aggregates->remove(deviceID);
    if (!aggregate)
        return deviceState(deviceID) ? kAudioHardwareIllegalOperationError : kAudioHardwareBadDeviceError;
    removeDevice(deviceID);
    aggregate->end();
    return kAudioHardwareNoError;
}

HALStatus HALModelBackend::_carryOutRate(AudioObjectID deviceID, double rate)
{
    const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID);
    return aggregate ? aggregate->setNominalSampleRate(rate) : setNominalSampleRate(deviceID, rate);
}

HALStatus HALModelBackend::_carryOutFrames(AudioObjectID deviceID, uint32_t frameCount)
{
    const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID);
    return aggregate ? aggregate->setBufferFrameSize(frameCount) : setBufferFrameSize(deviceID, frameCount);
}

HALStatus HALModelBackend::_carryOutMute(AudioObjectID deviceID, HALDirection direction, bool muted)
{
    const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID);
    return aggregate ? aggregate->setMuted(direction, muted) : setMuted(deviceID, direction, muted);
}

HALStatus HALModelBackend::_startHardware(AudioObjectID deviceID, const CXRef<HALIOProcTable>& table)
{
    const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID);
    return aggregate ? aggregate->startIO(table) : startIO(deviceID, table);
}

void HALModelBackend::_stopHardware(AudioObjectID deviceID)
{
    if (const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID))
        aggregate->stopIO();
    else
        stopIO(deviceID);
}

HALStatus HALModelBackend::_writeName(AudioObjectID deviceID, std::span<const std::byte> value)
{
    const CXRef<AggregateDevice> aggregate = _aggregates->device(deviceID);
    if (!aggregate)
        return kAudioHardwareIllegalOperationError;
    const CXObject* object = nullptr;
    if (value.size() != sizeof object)
        return kAudioHardwareBadPropertySizeError;
    std::memcpy(&object, value.data(), sizeof object);
    const auto* name = dynamic_cast<const CXValue*>(object);
    if (!name || !name->plist().is_string())
        return kAudioHardwareIllegalOperationError;
    return aggregate->setName(platform::utf8Replaced(name->string()));
}
