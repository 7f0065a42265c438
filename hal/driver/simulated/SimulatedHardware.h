#pragma once

#include "HALHardwareDriver.h"
#include "SimulatedDeviceBuilder.h"

#include <initializer_list>
#include <memory>
#include <string>

class SimulatedMachine;
class SimulatedPlugged;
class SimulatedDevice;

/// How a simulated computer's time passes.
enum class SimulatedClock {
    Stepped, ///< only when the application says so, on the calling thread: failures repeat exactly, hours take seconds
    RealTime ///< as the host's, each running device, or group of devices, on an IO thread of its own
};

/// A computer's audio hardware in memory: devices are plugged, changed, unplugged and made to fail as the
/// application asks. Give it to HALSetHardwareDriver().
/// Threads:   any; the stepping functions on one thread at a time, which then is the IO thread.
/// Devices of one clock domain that run in one aggregate run in one cycle, at the cycle length of the first.
class DXR_EXPORT SimulatedHardware final : public HALHardwareDriver {
public:
    /// A computer without any device.
    static CXRef<SimulatedHardware> init(SimulatedClock clock = SimulatedClock::RealTime);

    // -- Plugging. Announced like any change; each returns whether the device or devices were there.

    /// Plugs the device in; the first that can becomes the default of a direction. 0, and no change, when one
    /// of its UID is plugged in already, or the HAL does not use this hardware yet (the device is then
    /// reported when it does).
    AudioObjectID plug(const SimulatedDeviceBuilder& device);
    /// Its callbacks are over on return, unless one of them calls this.
    bool unplug(const std::string& uid);
    /// Lets `change` alter any part of the device's description: name, streams, rates, controls, signals.
    /// Only the UID stays.
    bool reconfigure(const std::string& uid, const CXBlock<void(SimulatedDeviceBuilder&)>& change);
    /// The default for the direction, and for output the system's default, too; the empty UID is none.
    bool setDefault(HALDirection direction, const std::string& uid);
    bool setDefaultSystemOutput(const std::string& uid);
    /// The device's ID; 0 when it is not plugged in.
    AudioObjectID deviceID(const std::string& uid) const;

    // -- Faults. Reads fail for the whole process: install rules on one computer only.

    /// Counting from now and from 1, the `nth` to `nth + count - 1` reads of `selector` (any for '****') on
    /// any object return `status`. Reads of sizes count as well. Replaces the rule before; count 0 removes
    /// it.
    void failReads(uint32_t selector, uint64_t nth, uint64_t count, HALStatus status);
    /// Calls `script` once, before the `nth` read of data (not of a size) of `selector` is carried out, on
    /// the reading thread: the place to change a value between the read of its size and the read of its data.
    void beforeRead(uint32_t selector, uint64_t nth, CXBlock<void()> script);
    /// Property writes and starts return `status` from now on, and do nothing; 0 ends this.
    void failWrites(HALStatus status);
    void failStarts(HALStatus status);
    /// The running device loses `count` cycles at its next one.
    bool loseCycles(const std::string& uid, uint32_t count);

    // -- The stepped clock. Without effect on a real-time one.

    /// Runs every cycle that falls due in the next `nanoseconds`, in order of time.
    void advance(uint64_t nanoseconds);
    /// Advances until every running device has run `count` more cycles.
    void stepCycles(uint32_t count);
    /// The simulated host time in ticks; the host clock's on a real-time clock.
    uint64_t nowTicks() const;

    /// Waits until every change so far has been delivered to the listeners without a queue. Not from a
    /// listener.
    void settle();

    void start(HALDriverSink& sink) override;
    void stop() override;
    HALStatus chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline deadline) override;

private:
    explicit SimulatedHardware(SimulatedClock clock);
    ~SimulatedHardware() override;

    CXRef<SimulatedDevice> _device(const std::string& uid) const;
    void _interceptReads();
    bool _setDefaults(std::initializer_list<HALDefault> which, const std::string& uid);

    const CXRef<SimulatedMachine> _machine;
    const std::unique_ptr<SimulatedPlugged> _plugged;
};
