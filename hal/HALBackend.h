#pragma once

#include "AudioHardware.h"

#include <span>

/// Who is told of a property change: a plain function with its data, or a closure with an optional queue.
struct HALListener {
    AudioObjectPropertyListenerProc proc = nullptr;
    void* clientData = nullptr;
    AudioObjectPropertyListenerBlock block;
    CXRef<platform::WorkQueue> queue;

    friend bool operator==(const HALListener&, const HALListener&) = default;
};

/// The seam to the audio hardware. One backend is active in a process; the published functions forward to it
/// after checking pointers.
/// Threads:   every function from any thread, listeners and IO callbacks included, without deadlock.
/// Real time: on an IO thread, reads of 'nsrt' and 'fsiz' of the device that runs it, and stop().
/// Waits:     property reads never wait for hardware; writes, start() and stop() may, for a bounded time.
/// Promises:  - object IDs are never reused in a process;
///            - unknown objects answer '!obj', unknown properties 'who?', nothing crashes;
///            - listeners are called on the one notification thread, or on their queue, with no lock held;
///              when a listener runs, a read answers the new value or a later one;
///            - a device's sample time never repeats while it runs;
///            - when a device goes, its callbacks are not called again, its objects answer '!obj', and 'dev#'
///              of the system object is announced.
class DXR_EXPORT HALBackend : public CXObject {
public:
    using Address = AudioObjectPropertyAddress;

    /// Stores the size of the property's value now.
    virtual HALStatus propertySize(AudioObjectID objectID, const Address& address,
                                   std::span<const std::byte> qualifier, uint32_t& size) = 0;
    /// Writes the value into `out` and stores the bytes written. '!siz' when `out` is too small. For a
    /// translation, `out` holds the AudioValueTranslation to carry out. Objects come with a reference for the
    /// caller.
    virtual HALStatus readProperty(AudioObjectID objectID, const Address& address,
                                   std::span<const std::byte> qualifier, std::span<std::byte> out,
                                   uint32_t& size) = 0;
    /// Asks the hardware to take over `value`.
    virtual HALStatus writeProperty(AudioObjectID objectID, const Address& address,
                                    std::span<const std::byte> qualifier,
                                    std::span<const std::byte> value) = 0;

    /// 'nope' when the same listener is there already for this object and address.
    virtual HALStatus addListener(AudioObjectID objectID, const Address& address,
                                  const HALListener& listener) = 0;
    /// Once this has returned on any other thread, `listener` is not running and never will again. Works for
    /// objects that are gone, too; 'nope' when there is no such listener.
    virtual HALStatus removeListener(AudioObjectID objectID, const Address& address,
                                     const HALListener& listener) = 0;

    /// Registers an IO callback, stopped.
    virtual HALStatus createIOProc(AudioObjectID deviceID, const AudioDeviceIOBlock& block,
                                   AudioDeviceIOProcID& procID) = 0;
    /// Forgets it, running or not. On return from any other thread it is not running and never will again; on
    /// the IO thread, its current cycle is its last. '!dev' when the device is gone, and the callback is
    /// forgotten too.
    virtual HALStatus destroyIOProc(AudioObjectID deviceID, AudioDeviceIOProcID procID) = 0;
    virtual HALStatus start(AudioObjectID deviceID, AudioDeviceIOProcID procID) = 0;
    virtual HALStatus stop(AudioObjectID deviceID, AudioDeviceIOProcID procID) = 0;

    /// As AudioHardwareCreateAggregateDevice says. The device is there, with all its properties, on return.
    virtual HALStatus createAggregateDevice(const CXValue& description, AudioObjectID& deviceID) = 0;
    /// On return none of its callbacks runs, and never will again.
    virtual HALStatus destroyAggregateDevice(AudioObjectID deviceID) = 0;
};

/// Makes `backend` the process's hardware. Call it once, before any other HAL function; false, and no change,
/// when a backend is active already.
DXR_EXPORT bool HALSetBackend(CXRef<HALBackend> backend);
/// The active backend; on first use, the PipeWire one where it was built in, else one without devices.
DXR_EXPORT const CXRef<HALBackend>& HALActiveBackend();
