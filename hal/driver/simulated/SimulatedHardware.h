#pragma once

#include "HALHardwareDriver.h"
#include "SimulatedDeviceBuilder.h"

#include <initializer_list>
#include <memory>
#include <string>

class SimulatedMachine;
class SimulatedPlugged;
class SimulatedDevice;

/// How time passes on a simulated computer.
enum class SimulatedClock {
    Stepped, ///< only in advance() and stepCycles(), on the calling thread: failures repeat exactly
    RealTime ///< like the host's; each running device, or group of devices, has an IO thread
};

/// A computer's audio hardware in memory. The application plugs in, changes and unplugs devices and makes
/// them fail. Pass it to HALSetHardwareDriver().
/// Threads:   any; the stepping functions on one thread at a time, which is then the IO thread.
/// Devices of one clock domain that run in one aggregate run in one cycle, with the cycle length of the
/// first.
class DXR_EXPORT SimulatedHardware final : public HALHardwareDriver {
public:
    /// Creates a computer without devices.
    static CXRef<SimulatedHardware> init(SimulatedClock clock = SimulatedClock::RealTime);

    // -- Plugging. Changes are announced to listeners. The functions that return bool return false if there
    // is no such device.

    /// Plugs the device in and returns its ID. The first device that can be a default device becomes one.
    /// Returns 0 and does nothing if a device of this UID is plugged in. Also returns 0 if the HAL does not
    /// use this hardware yet; the device is reported once it does.
    AudioObjectID plug(const SimulatedDeviceBuilder& device);
    /// On return the device's callbacks have ended, unless one of them made this call.
    bool unplug(const std::string& uid);
    /// Calls `change`, which may change any part of the device's description except the UID: name, streams,
    /// rates, controls, signals.
    bool reconfigure(const std::string& uid, const CXBlock<void(SimulatedDeviceBuilder&)>& change);
    /// Makes the device the default for the direction, and for output also the system's default; an empty UID
    /// means none.
    bool setDefault(HALDirection direction, const std::string& uid);
    bool setDefaultSystemOutput(const std::string& uid);
    /// The device's ID; 0 if it is not plugged in.
    AudioObjectID deviceID(const std::string& uid) const;

    // -- Faults. Reads fail for the whole process: install rules on one computer only.

    /// From now on, the `nth` (from 1) to `nth + count - 1` reads of `selector` (any for '****') on any
    /// object return `status`. Reads of sizes are counted, too. Replaces the previous rule; count 0 removes
    /// it.
    void failReads(uint32_t selector, uint64_t nth, uint64_t count, HALStatus status);
    /// Calls `script` once, on the reading thread, before the `nth` read of data (not of a size) of
    /// `selector`. Use it to change a value between the reads of its size and its data.
    void beforeRead(uint32_t selector, uint64_t nth, CXBlock<void()> script);
    /// From now on, property writes or starts return `status` and do nothing; 0 ends this.
    void failWrites(HALStatus status);
    /// The same for the writes of one device.
    void failWritesOf(const std::string& uid, HALStatus status);
    void failStarts(HALStatus status);
    /// Makes the running device lose `count` cycles before its next one. Returns false if it is not running.
    bool loseCycles(const std::string& uid, uint32_t count);

    // -- The stepped clock. advance() and stepCycles() do nothing on a real-time clock.

    /// Runs every cycle that is due in the next `nanoseconds`, in order of time. The clock ends at
    /// 2^63 - 1 ticks.
    void advance(uint64_t nanoseconds);
    /// Advances until every running device has run `count` more cycles.
    void stepCycles(uint32_t count);
    /// The simulated host time in ticks; on a real-time clock, the host's.
    uint64_t nowTicks() const;

    /// Waits until every change so far has been delivered to the listeners without a queue. Must not be
    /// called from a listener.
    void settle();

    void start(HALDriverSink& sink) override;
    void stop() override;
    HALStatus chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline deadline) override;
    bool isOnHostClock() const override;

private:
    explicit SimulatedHardware(SimulatedClock clock);
    ~SimulatedHardware() override;

    CXRef<SimulatedDevice> _device(const std::string& uid) const;
    void _interceptReads();
    bool _setDefaults(std::initializer_list<HALDefault> which, const std::string& uid);

    const CXRef<SimulatedMachine> _machine;
    const std::unique_ptr<SimulatedPlugged> _plugged;
};
