#include "AudioHardware.h"

#include "HALModel.h"
#include "HALReadFailures.h"
#include "HALReadInterception.h"
#include "LogSink.h"

#include <exception>

namespace {

using Address = AudioObjectPropertyAddress;

std::span<const std::byte> bytesOf(const void* data, uint32_t size)
{
    return {static_cast<const std::byte*>(data), size};
}

thread_local uint64_t readFailures = 0;

HALStatus noted(HALStatus status)
{
    if (status != kAudioHardwareNoError && status != kAudioHardwareUnknownPropertyError)
        ++readFailures;
    return status;
}

bool isAbsent(const void* data, uint32_t size)
{
    return !data && size > 0;
}

/// Returns what `call` returns for the model. No exception may leave the published functions: returns 'what'
/// if memory is exhausted or the model cannot create a thread; the next call tries again to create the model.
template <class Call> HALStatus withModel(const Call& call)
{
    try {
        return call(*halActiveModel());
    } catch (const std::exception& error) {
        dxr::LogSink::log(std::string("Audio hardware: ") + error.what());
        return kAudioHardwareUnspecifiedError;
    }
}

} // namespace

uint64_t halReadFailures() noexcept
{
    return readFailures;
}

HALStatus AudioObjectGetPropertyDataSize(AudioObjectID objectID, const Address* address,
                                         uint32_t qualifierDataSize, const void* qualifierData,
                                         uint32_t* dataSize)
{
    if (!address || !dataSize || isAbsent(qualifierData, qualifierDataSize))
        return kAudioHardwareIllegalOperationError;
    if (const HALStatus status = halIntercepted(objectID, *address, true))
        return noted(status);
    return noted(withModel([&](HALModel& model) {
        return model.propertySize(objectID, *address, bytesOf(qualifierData, qualifierDataSize), *dataSize);
    }));
}

HALStatus AudioObjectGetPropertyData(AudioObjectID objectID, const Address* address,
                                     uint32_t qualifierDataSize, const void* qualifierData,
                                     uint32_t* dataSize, void* data)
{
    if (!address || !dataSize || isAbsent(data, *dataSize) || isAbsent(qualifierData, qualifierDataSize))
        return kAudioHardwareIllegalOperationError;
    if (const HALStatus status = halIntercepted(objectID, *address, false))
        return noted(status);
    return noted(withModel([&](HALModel& model) {
        return model.readProperty(objectID, *address, bytesOf(qualifierData, qualifierDataSize),
                                  {static_cast<std::byte*>(data), *dataSize}, *dataSize);
    }));
}

HALStatus AudioObjectSetPropertyData(AudioObjectID objectID, const Address* address,
                                     uint32_t qualifierDataSize, const void* qualifierData, uint32_t dataSize,
                                     const void* data)
{
    if (!address || isAbsent(data, dataSize) || isAbsent(qualifierData, qualifierDataSize))
        return kAudioHardwareIllegalOperationError;
    return withModel([&](HALModel& model) {
        return model.writeProperty(objectID, *address, bytesOf(qualifierData, qualifierDataSize),
                                   bytesOf(data, dataSize));
    });
}

HALStatus AudioObjectAddPropertyListener(AudioObjectID objectID, const Address* address,
                                         AudioObjectPropertyListenerProc listener, void* clientData)
{
    if (!address || !listener)
        return kAudioHardwareIllegalOperationError;
    return withModel([&](HALModel& model) {
        return model.addListener(objectID, *address, {listener, clientData, {}, {}});
    });
}

HALStatus AudioObjectRemovePropertyListener(AudioObjectID objectID, const Address* address,
                                            AudioObjectPropertyListenerProc listener, void* clientData)
{
    if (!address || !listener)
        return kAudioHardwareIllegalOperationError;
    return withModel([&](HALModel& model) {
        return model.removeListener(objectID, *address, {listener, clientData, {}, {}});
    });
}

HALStatus AudioObjectAddPropertyListenerBlock(AudioObjectID objectID, const Address* address,
                                              const CXRef<dxr::WorkQueue>& queue,
                                              const AudioObjectPropertyListenerBlock& listener)
{
    if (!address || !listener)
        return kAudioHardwareIllegalOperationError;
    return withModel([&](HALModel& model) {
        return model.addListener(objectID, *address, {nullptr, nullptr, listener, queue});
    });
}

HALStatus AudioObjectRemovePropertyListenerBlock(AudioObjectID objectID, const Address* address,
                                                 const CXRef<dxr::WorkQueue>& queue,
                                                 const AudioObjectPropertyListenerBlock& listener)
{
    if (!address || !listener)
        return kAudioHardwareIllegalOperationError;
    return withModel([&](HALModel& model) {
        return model.removeListener(objectID, *address, {nullptr, nullptr, listener, queue});
    });
}

HALStatus AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID* procID, AudioObjectID deviceID,
                                             const CXRef<dxr::WorkQueue>& queue,
                                             const AudioDeviceIOBlock& block)
{
    if (!procID || !block || queue)
        return kAudioHardwareIllegalOperationError;
    *procID = nullptr;
    return withModel([&](HALModel& model) { return model.createIOProc(deviceID, block, *procID); });
}

HALStatus AudioDeviceDestroyIOProcID(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    return withModel([&](HALModel& model) { return model.destroyIOProc(deviceID, procID); });
}

HALStatus AudioDeviceStart(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    return withModel([&](HALModel& model) { return model.start(deviceID, procID); });
}

HALStatus AudioDeviceStop(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    return withModel([&](HALModel& model) { return model.stop(deviceID, procID); });
}

HALStatus AudioHardwareCreateAggregateDevice(const CXValue* description, AudioObjectID* deviceID)
{
    if (!description || !deviceID)
        return kAudioHardwareIllegalOperationError;
    *deviceID = kAudioObjectUnknown;
    return withModel([&](HALModel& model) { return model.createAggregateDevice(*description, *deviceID); });
}

HALStatus AudioHardwareDestroyAggregateDevice(AudioObjectID deviceID)
{
    return withModel([&](HALModel& model) { return model.destroyAggregateDevice(deviceID); });
}
