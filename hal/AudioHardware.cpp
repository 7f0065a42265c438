#include "AudioHardware.h"

#include "HALBackend.h"
#include "HALDefaultBackend.h"
#include "HALReadFailures.h"

#include <mutex>

namespace {

using Address = AudioObjectPropertyAddress;

// Set once, by whoever is first, and kept to the end of the process: threads of the hardware run until then.
struct ActiveBackend {
    std::mutex mutex;
    CXRef<HALBackend> backend;
};

ActiveBackend& activeBackend()
{
    static auto* active = new ActiveBackend;
    return *active;
}

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

} // namespace

uint64_t halReadFailures() noexcept
{
    return readFailures;
}

bool HALSetBackend(CXRef<HALBackend> backend)
{
    const std::scoped_lock lock(activeBackend().mutex);
    if (!backend || activeBackend().backend)
        return false;
    activeBackend().backend = std::move(backend);
    return true;
}

const CXRef<HALBackend>& HALActiveBackend()
{
    static const CXRef<HALBackend>& backend = [&]() -> const CXRef<HALBackend>& {
        const std::scoped_lock lock(activeBackend().mutex);
        if (!activeBackend().backend)
            activeBackend().backend = halMakeDefaultBackend();
        return activeBackend().backend;
    }();
    return backend;
}

HALStatus AudioObjectGetPropertyDataSize(AudioObjectID objectID, const Address* address,
                                         uint32_t qualifierDataSize, const void* qualifierData,
                                         uint32_t* dataSize)
{
    if (!address || !dataSize || isAbsent(qualifierData, qualifierDataSize))
        return kAudioHardwareIllegalOperationError;
    return noted(HALActiveBackend()->propertySize(objectID, *address,
                                                  bytesOf(qualifierData, qualifierDataSize), *dataSize));
}

HALStatus AudioObjectGetPropertyData(AudioObjectID objectID, const Address* address,
                                     uint32_t qualifierDataSize, const void* qualifierData,
                                     uint32_t* dataSize, void* data)
{
    if (!address || !dataSize || isAbsent(data, *dataSize) || isAbsent(qualifierData, qualifierDataSize))
        return kAudioHardwareIllegalOperationError;
    return noted(HALActiveBackend()->readProperty(objectID, *address,
                                                  bytesOf(qualifierData, qualifierDataSize),
                                                  {static_cast<std::byte*>(data), *dataSize}, *dataSize));
}

HALStatus AudioObjectSetPropertyData(AudioObjectID objectID, const Address* address,
                                     uint32_t qualifierDataSize, const void* qualifierData, uint32_t dataSize,
                                     const void* data)
{
    if (!address || isAbsent(data, dataSize) || isAbsent(qualifierData, qualifierDataSize))
        return kAudioHardwareIllegalOperationError;
    return HALActiveBackend()->writeProperty(objectID, *address, bytesOf(qualifierData, qualifierDataSize),
                                             bytesOf(data, dataSize));
}

HALStatus AudioObjectAddPropertyListener(AudioObjectID objectID, const Address* address,
                                         AudioObjectPropertyListenerProc listener, void* clientData)
{
    if (!address || !listener)
        return kAudioHardwareIllegalOperationError;
    return HALActiveBackend()->addListener(objectID, *address, {listener, clientData, {}, {}});
}

HALStatus AudioObjectRemovePropertyListener(AudioObjectID objectID, const Address* address,
                                            AudioObjectPropertyListenerProc listener, void* clientData)
{
    if (!address || !listener)
        return kAudioHardwareIllegalOperationError;
    return HALActiveBackend()->removeListener(objectID, *address, {listener, clientData, {}, {}});
}

HALStatus AudioObjectAddPropertyListenerBlock(AudioObjectID objectID, const Address* address,
                                              const CXRef<platform::WorkQueue>& queue,
                                              const AudioObjectPropertyListenerBlock& listener)
{
    if (!address || !listener)
        return kAudioHardwareIllegalOperationError;
    return HALActiveBackend()->addListener(objectID, *address, {nullptr, nullptr, listener, queue});
}

HALStatus AudioObjectRemovePropertyListenerBlock(AudioObjectID objectID, const Address* address,
                                                 const CXRef<platform::WorkQueue>& queue,
                                                 const AudioObjectPropertyListenerBlock& listener)
{
    if (!address || !listener)
        return kAudioHardwareIllegalOperationError;
    return HALActiveBackend()->removeListener(objectID, *address, {nullptr, nullptr, listener, queue});
}

HALStatus AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID* procID, AudioObjectID deviceID,
                                             const CXRef<platform::WorkQueue>& queue,
                                             const AudioDeviceIOBlock& block)
{
    if (!procID || !block || queue)
        return kAudioHardwareIllegalOperationError;
    *procID = nullptr;
    return HALActiveBackend()->createIOProc(deviceID, block, *procID);
}

HALStatus AudioDeviceDestroyIOProcID(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    return HALActiveBackend()->destroyIOProc(deviceID, procID);
}

HALStatus AudioDeviceStart(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    return HALActiveBackend()->start(deviceID, procID);
}

HALStatus AudioDeviceStop(AudioObjectID deviceID, AudioDeviceIOProcID procID)
{
    return HALActiveBackend()->stop(deviceID, procID);
}

HALStatus AudioHardwareCreateAggregateDevice(const CXValue* description, AudioObjectID* deviceID)
{
    if (!description || !deviceID)
        return kAudioHardwareIllegalOperationError;
    *deviceID = kAudioObjectUnknown;
    return HALActiveBackend()->createAggregateDevice(*description, *deviceID);
}

HALStatus AudioHardwareDestroyAggregateDevice(AudioObjectID deviceID)
{
    return HALActiveBackend()->destroyAggregateDevice(deviceID);
}
