#pragma once

#include "AudioHardwareTypes.h"
#include "WorkQueue.h"

// The audio hardware layer (HAL): objects with properties, listeners on them, and IO callbacks on devices.
// Everything above speaks to the hardware through these records and functions alone; they forward to the one
// hardware driver of the process (HALSetHardwareDriver), or report a system without any device when there is
// none.

class CXValue;

// ---- Functions. Any thread; an IO thread may only read 'nsrt' and 'fsiz' of its own device, and stop or
// destroy callbacks of it. They take bounded time, allocate, and never throw.

extern "C" {

/// Stores the size in bytes of the property's value now. `qualifierData` may be null when its size is 0.
DXR_EXPORT HALStatus AudioObjectGetPropertyDataSize(AudioObjectID objectID,
                                                    const AudioObjectPropertyAddress* address,
                                                    uint32_t qualifierDataSize, const void* qualifierData,
                                                    uint32_t* dataSize);

/// Reads the property into `data`, `*dataSize` bytes of room; stores the bytes written there. '!siz' when
/// there is too little room, which for a list is normal: it may have grown since its size was asked. A string
/// or dictionary is one CXObject pointer (8 bytes, a CXValue) that the caller owns: CXRef<CXObject>::adopt()
/// takes it.
DXR_EXPORT HALStatus AudioObjectGetPropertyData(AudioObjectID objectID,
                                                const AudioObjectPropertyAddress* address,
                                                uint32_t qualifierDataSize, const void* qualifierData,
                                                uint32_t* dataSize, void* data);

/// Writes the property. The change is announced to listeners when the hardware has taken it over, which may
/// be after the call; 'nope' for a property that cannot be written or a value out of range.
DXR_EXPORT HALStatus AudioObjectSetPropertyData(AudioObjectID objectID,
                                                const AudioObjectPropertyAddress* address,
                                                uint32_t qualifierDataSize, const void* qualifierData,
                                                uint32_t dataSize, const void* data);

/// Calls `listener` on the notification thread whenever a property that `address` matches changes; selector
/// and scope '****' and element 0xFFFFFFFF match any. The same listener may be added once per object and
/// address.
DXR_EXPORT HALStatus AudioObjectAddPropertyListener(AudioObjectID objectID,
                                                    const AudioObjectPropertyAddress* address,
                                                    AudioObjectPropertyListenerProc listener,
                                                    void* clientData);

/// Removes what AudioObjectAddPropertyListener added with the same arguments. Once this has returned on any
/// other thread than the one running it, the listener is not running and never will again. 'nope' when there
/// is none.
DXR_EXPORT HALStatus AudioObjectRemovePropertyListener(AudioObjectID objectID,
                                                       const AudioObjectPropertyAddress* address,
                                                       AudioObjectPropertyListenerProc listener,
                                                       void* clientData);

/// Starts the device for this callback; the first one started starts the hardware. Starting twice is no
/// error.
DXR_EXPORT HALStatus AudioDeviceStart(AudioObjectID deviceID, AudioDeviceIOProcID procID);
/// Stops the device for this callback; 'stop' when it was not started. On return on another thread than the
/// IO thread, its cycle has ended.
DXR_EXPORT HALStatus AudioDeviceStop(AudioObjectID deviceID, AudioDeviceIOProcID procID);
/// Forgets the callback, stopping it first. Waits for its running cycle, except on the IO thread itself.
DXR_EXPORT HALStatus AudioDeviceDestroyIOProcID(AudioObjectID deviceID, AudioDeviceIOProcID procID);

/// Joins devices, and stores the ID of the new one: their streams side by side, in cycles of the clock
/// device, the others brought to its clock. `description` is a dictionary; numbers may be booleans:
///
/// - "uid": string, unlike that of any device; needed.
/// - "name": string; the UID without one.
/// - "subdevices": array of dictionaries with a "uid" (string) and perhaps "drift" (number); needed, not
///   empty. A UID that comes again counts once. One that is absent takes its place when it comes; an
///   aggregate's never does. A sub-device is brought to the clock unless both are of one clock domain, or
///   "drift" is 0: then it is not resampled, and jumps now and then if its clock is another after all.
/// - "master": string, the UID of the sub-device whose clock leads; without one, or while that one is absent,
///   the first that is there leads.
/// - "private": number; not zero for a device of this process only, which all are here.
/// - "stacked": number; only 0 is supported.
///
/// 'nope', and no device, for a description that is not like that, or a UID that is taken.
DXR_EXPORT HALStatus AudioHardwareCreateAggregateDevice(const CXValue* description, AudioObjectID* deviceID);
/// Takes an aggregate device away again, running or not. '!dev' when there is none of that ID, 'nope' for a
/// device that is no aggregate, and on its IO thread.
DXR_EXPORT HALStatus AudioHardwareDestroyAggregateDevice(AudioObjectID deviceID);
}

/// As AudioObjectAddPropertyListener for a closure, called on `queue`, or on the notification thread without
/// one. The queue is kept alive while the listener is registered.
DXR_EXPORT HALStatus AudioObjectAddPropertyListenerBlock(AudioObjectID objectID,
                                                         const AudioObjectPropertyAddress* address,
                                                         const CXRef<dxr::WorkQueue>& queue,
                                                         const AudioObjectPropertyListenerBlock& listener);
/// As AudioObjectRemovePropertyListener, for the same object, address, queue and closure.
DXR_EXPORT HALStatus AudioObjectRemovePropertyListenerBlock(AudioObjectID objectID,
                                                            const AudioObjectPropertyAddress* address,
                                                            const CXRef<dxr::WorkQueue>& queue,
                                                            const AudioObjectPropertyListenerBlock& listener);

/// Registers `block` as an IO callback of the device, not yet started, and stores its identifier. With a
/// queue the cycles would leave the IO thread and lose its promises: only a null queue is supported, 'nope'
/// otherwise.
DXR_EXPORT HALStatus AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID* procID, AudioObjectID deviceID,
                                                        const CXRef<dxr::WorkQueue>& queue,
                                                        const AudioDeviceIOBlock& block);
