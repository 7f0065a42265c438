#pragma once

#include "HALDeviceDriver.h"

#include <string_view>

/// The default devices of a computer.
enum class HALDefault : uint32_t { Input = 0, Output = 1, SystemOutput = 2 };

/// Receives a hardware driver's reports about its devices. Every change is announced to listeners.
/// Threads: any except IO threads; one call at a time about the same device. A driver may hold its own lock
///          during a call if its device drivers do not need that lock to stop IO.
class DXR_EXPORT HALDriverSink {
public:
    /// Reports a new device and returns its ID for clients. `state.uid` must be unique among the present
    /// devices; a second device with the same UID is rejected with kAudioObjectUnknown.
    virtual AudioObjectID deviceAdded(const CXRef<HALDeviceDriver>& device, const HALDeviceState& state) = 0;
    /// Reports the device's new state. Streams keep their IDs by their position in their direction. Does
    /// nothing if the device is not present.
    virtual void deviceChanged(const HALDeviceDriver& device, const HALDeviceState& state) = 0;
    /// Reports that the device has disappeared. On return none of its IO callbacks is running, unless one of
    /// them made this call, and none will run again. stopIO() is not called: the driver has ended the
    /// device's IO already, or ends it afterwards.
    virtual void deviceRemoved(const HALDeviceDriver& device) = 0;
    /// Reports the new default device; null means none. If the default device is removed, there is no default
    /// device until the next call.
    virtual void defaultChanged(HALDefault which, const HALDeviceDriver* device) = 0;
    /// Waits until aggregate devices have applied every change reported so far and the listeners without a
    /// queue have been called. Must not be called from a listener.
    virtual void settle() = 0;

protected:
    ~HALDriverSink() = default;
};

/// Finds the audio devices of a computer and reports each to the sink, with a driver that controls it. An
/// application passes its own hardware driver to HALSetHardwareDriver().
/// Threads: any.
class DXR_EXPORT HALHardwareDriver : public CXObject {
public:
    /// Starts reporting to `sink`, which outlives stop(). Called once.
    virtual void start(HALDriverSink& sink) = 0;
    /// After this returns, nothing is reported and no cycle runs.
    virtual void stop() = 0;
    /// Returns after the initial enumeration, or after a bounded time. Called before clients read the list of
    /// devices; never on an IO thread.
    virtual void waitUntilEnumerated() {}
    /// The reason, for a user, why devices cannot be found at present; empty if they can.
    virtual std::string unavailableReason() const { return {}; }
    /// Makes `device` the default device. The caller has checked that it has streams in the direction and may
    /// be the default there. Returns 'nope' if applications cannot choose the defaults.
    virtual HALStatus chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline deadline);
    /// Whether the host times of cycles are of the host's clock. If not, no cycle can be late.
    virtual bool isOnHostClock() const { return true; }
};

/// Returns one of the library's drivers: "pipewire", the devices of the user's PipeWire server; "alsa", the
/// sound cards themselves, which no sound server may be using; "alsa:2", the same with ring buffers of two
/// cycles instead of three. Returns null for any other name, and for a driver that was not built in.
DXR_EXPORT CXRef<HALHardwareDriver> HALMakeHardwareDriver(std::string_view name);

/// Makes `driver` the process's hardware driver. Call it once, before any other HAL function. Returns false
/// and changes nothing if `driver` is null or the process already has a driver. Without this call, the first
/// HAL function chooses ALSA if it was built in, no sound server is running or expected, and the machine has
/// sound cards or PipeWire was not built in; otherwise it chooses PipeWire. If that was not built in, there
/// are no devices.
DXR_EXPORT bool HALSetHardwareDriver(const CXRef<HALHardwareDriver>& driver);

/// The reason why the process's hardware driver finds no devices, as "cannot connect to the PipeWire server
/// at …"; empty if it can find them. Returns after the initial enumeration.
DXR_EXPORT std::string HALHardwareUnavailableReason();

/// isOnHostClock() of the process's hardware driver.
bool HALHardwareIsOnHostClock();
