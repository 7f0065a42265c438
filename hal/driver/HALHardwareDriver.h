#pragma once

#include "HALDeviceDriver.h"

#include <string_view>

/// The default devices of a computer.
enum class HALDefault : uint32_t { Input = 0, Output = 1, SystemOutput = 2 };

/// Where a hardware driver reports its devices. Every change is announced to listeners.
/// Threads: any but IO threads; calls about one device one at a time. A driver may hold its own lock during a
///          call if its device drivers do not need that lock to stop IO.
class DXR_EXPORT HALDriverSink {
public:
    /// A device has come. Returns the ID that clients know it by. `state.uid` is unique among the present
    /// devices; a second device of one UID is refused with kAudioObjectUnknown.
    virtual AudioObjectID deviceAdded(const CXRef<HALDeviceDriver>& device, const HALDeviceState& state) = 0;
    /// The device is now as `state` says; streams keep their IDs by their place in their direction. Without
    /// effect on a device that is not there.
    virtual void deviceChanged(const HALDeviceDriver& device, const HALDeviceState& state) = 0;
    /// The device has gone. On return none of its IO callbacks runs, unless one of them made this call, and
    /// none will again; stopIO() is not called: the driver has ended its IO before, or does so afterwards.
    virtual void deviceRemoved(const HALDeviceDriver& device) = 0;
    /// Another device is the default; null is none. A default device that is removed leaves none until the
    /// next call.
    virtual void defaultChanged(HALDefault which, const HALDeviceDriver* device) = 0;
    /// Waits until every change so far has been followed by aggregate devices and delivered to the listeners
    /// without a queue. Not from a listener.
    virtual void settle() = 0;

protected:
    ~HALDriverSink() = default;
};

/// Finds the audio devices of a computer and reports each to the sink with the driver that runs it. An
/// application gives its own to HALSetHardwareDriver().
/// Threads: any.
class DXR_EXPORT HALHardwareDriver : public CXObject {
public:
    /// Begins to report to `sink`, which outlives stop(). Called once.
    virtual void start(HALDriverSink& sink) = 0;
    /// Nothing is reported and no cycle runs after it has returned.
    virtual void stop() = 0;
    /// Returns after the initial enumeration, or after a bounded time. Called before clients read the list of
    /// devices; not on IO threads.
    virtual void waitUntilEnumerated() {}
    /// Why devices cannot be found now, for a user; empty when they can.
    virtual std::string unavailableReason() const { return {}; }
    /// Makes `device`, which has streams in the direction and can be default there, the default device.
    /// 'nope' where the defaults are not the application's to choose.
    virtual HALStatus chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline deadline);
};

/// A driver that the library brings: "pipewire", the devices of the user's PipeWire server; "alsa", the sound cards
/// themselves, which no sound server may be using; "alsa:2", with rings of two cycles instead of three. Null for any other
/// name, and for a driver that was not built in.
DXR_EXPORT CXRef<HALHardwareDriver> HALMakeHardwareDriver(std::string_view name);

/// Makes `driver` the process's audio hardware. Call it once, before any other HAL function; false, and no change, when
/// there is a driver already. Without a call, the first HAL function picks PipeWire; ALSA where PipeWire was not built in,
/// and where the machine has sound cards and no sound server is running or about to; no devices where neither was built in.
DXR_EXPORT bool HALSetHardwareDriver(const CXRef<HALHardwareDriver>& driver);

/// Why the process's hardware has no devices: "cannot connect to the PipeWire server at …"; empty when it can be asked for
/// them. Returns after the initial enumeration.
DXR_EXPORT std::string HALHardwareUnavailableReason();
