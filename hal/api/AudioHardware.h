#pragma once

#include "AudioHardwareTypes.h"
#include "WorkQueue.h"

// The audio hardware layer (HAL): objects with properties, listeners on properties, and IO callbacks on
// devices. The floors above access the hardware only through these records and functions, which use the
// process's one hardware driver: the driver set by HALSetHardwareDriver(), or the default one.

class CXValue;

// ---- Functions. Threads: any; an IO thread may only read 'nsrt' and 'fsiz' of its own device, and stop or
// destroy callbacks of that device. Every function takes bounded time, may allocate, and never throws.

extern "C" {

/// Stores the current size in bytes of the property's value. `qualifierData` may be null if its size is 0.
DXR_EXPORT HALStatus AudioObjectGetPropertyDataSize(AudioObjectID objectID,
                                                    const AudioObjectPropertyAddress* address,
                                                    uint32_t qualifierDataSize, const void* qualifierData,
                                                    uint32_t* dataSize);

/// Reads the property into `data`, which has room for `*dataSize` bytes, and stores the number of bytes
/// written in `*dataSize`. Returns '!siz' if the room is too small, which is normal for a list: it may have
/// grown since its size was read. A string or dictionary is one CXObject pointer (8 bytes, a CXValue) that
/// the caller owns: pass it to CXRef<CXObject>::adopt().
DXR_EXPORT HALStatus AudioObjectGetPropertyData(AudioObjectID objectID,
                                                const AudioObjectPropertyAddress* address,
                                                uint32_t qualifierDataSize, const void* qualifierData,
                                                uint32_t* dataSize, void* data);

/// Writes the property. Listeners are notified once the hardware has applied the change, possibly after this
/// call has returned. Returns 'nope' if the property cannot be written or the value is out of range.
DXR_EXPORT HALStatus AudioObjectSetPropertyData(AudioObjectID objectID,
                                                const AudioObjectPropertyAddress* address,
                                                uint32_t qualifierDataSize, const void* qualifierData,
                                                uint32_t dataSize, const void* data);

/// Calls `listener` on the notification thread whenever a property that `address` matches changes. Selector
/// and scope '****' and element 0xFFFFFFFF match any. The same listener may be added once per object and
/// address.
DXR_EXPORT HALStatus AudioObjectAddPropertyListener(AudioObjectID objectID,
                                                    const AudioObjectPropertyAddress* address,
                                                    AudioObjectPropertyListenerProc listener,
                                                    void* clientData);

/// Removes the listener that AudioObjectAddPropertyListener added with the same arguments. After this
/// returns, the listener is not called again and, unless it made this call itself, is not running. Returns
/// 'nope' if there is no such listener.
DXR_EXPORT HALStatus AudioObjectRemovePropertyListener(AudioObjectID objectID,
                                                       const AudioObjectPropertyAddress* address,
                                                       AudioObjectPropertyListenerProc listener,
                                                       void* clientData);

/// Starts the device for this callback. The first callback that is started starts the hardware. Starting a
/// callback twice is not an error.
DXR_EXPORT HALStatus AudioDeviceStart(AudioObjectID deviceID, AudioDeviceIOProcID procID);
/// Stops the device for this callback; returns 'stop' if it was not started. After this returns on a thread
/// other than the IO thread, the callback's cycle has ended.
DXR_EXPORT HALStatus AudioDeviceStop(AudioObjectID deviceID, AudioDeviceIOProcID procID);
/// Stops and removes the callback. Waits for its running cycle, except on the IO thread itself.
DXR_EXPORT HALStatus AudioDeviceDestroyIOProcID(AudioObjectID deviceID, AudioDeviceIOProcID procID);

/// Creates an aggregate device and stores its ID. The aggregate has the streams of its sub-devices side by
/// side and runs in the cycles of the clock device, to whose clock the other sub-devices are resampled.
/// `description` is a dictionary, in which numbers may be booleans:
///
/// - "uid": string, different from the UID of every other device; required.
/// - "name": string; default: the UID.
/// - "subdevices": array of dictionaries with a "uid" (string) and an optional "drift" (number); required,
///   not empty. A repeated UID counts once. An absent device joins when it appears; an aggregate device
///   cannot be a sub-device and counts as absent. A sub-device is resampled unless it has the clock device's
///   clock domain or "drift" is 0. With "drift" 0, its frames jump now and then if the clocks do differ.
/// - "master": string, the UID of the clock device, which is one of the sub-devices; default, also while that
///   device is absent: the first sub-device that is present.
/// - "private": number; non-zero for a device visible to this process only, as all aggregates are.
/// - "stacked": number; only 0 is supported.
///
/// Returns 'nope', and creates no device, if the description breaks these rules or the UID is taken.
DXR_EXPORT HALStatus AudioHardwareCreateAggregateDevice(const CXValue* description, AudioObjectID* deviceID);
/// Removes an aggregate device, running or not. Returns '!dev' if there is no device of that ID; 'nope' if
/// the device is not an aggregate, or when called on its IO thread.
DXR_EXPORT HALStatus AudioHardwareDestroyAggregateDevice(AudioObjectID deviceID);
}

/// Like AudioObjectAddPropertyListener for a closure, which is called on `queue`, or on the notification
/// thread if `queue` is null. The queue is kept alive while the listener is registered.
DXR_EXPORT HALStatus AudioObjectAddPropertyListenerBlock(AudioObjectID objectID,
                                                         const AudioObjectPropertyAddress* address,
                                                         const CXRef<dxr::WorkQueue>& queue,
                                                         const AudioObjectPropertyListenerBlock& listener);
/// Like AudioObjectRemovePropertyListener, for the same object, address, queue and closure.
DXR_EXPORT HALStatus AudioObjectRemovePropertyListenerBlock(AudioObjectID objectID,
                                                            const AudioObjectPropertyAddress* address,
                                                            const CXRef<dxr::WorkQueue>& queue,
                                                            const AudioObjectPropertyListenerBlock& listener);

/// Registers `block` as an IO callback of the device, not yet started, and stores its identifier. `queue`
/// must be null ('nope' otherwise): on a queue, cycles would lose the guarantees of the IO thread.
DXR_EXPORT HALStatus AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID* procID, AudioObjectID deviceID,
                                                        const CXRef<dxr::WorkQueue>& queue,
                                                        const AudioDeviceIOBlock& block);
