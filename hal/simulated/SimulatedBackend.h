#pragma once

#include "HALBackend.h"
#include "HALDirection.h"
#include "SimulatedDeviceBuilder.h"

#include <string>

class SimulatedHardware;

/// How a simulated computer's time passes.
enum class SimulatedClock {
    Stepped, ///< only when told, on the calling thread: what fails once fails every time, and hours take
             ///< seconds
    RealTime ///< as the host's, each running device on an IO thread of its own
};

/// A computer's audio hardware in memory, with a script in place of hands: devices are plugged, changed,
/// unplugged and made to fail as the application asks.
/// Threads:   any; the stepping functions on one thread at a time, which then is the IO thread.
/// Real time: as HALBackend says.
class DXR_EXPORT SimulatedBackend final : public HALBackend {
public:
    /// A computer without any device.
    static CXRef<SimulatedBackend> init(SimulatedClock clock = SimulatedClock::RealTime);

    // -- Hands on the hardware. Announced like any change; each answers whether the device or devices were
    // there.

    /// Plugs the device in; the first that can becomes the default of a direction. 0, and nothing happens,
    /// when one of its UID is plugged in already.
    AudioObjectID plug(const SimulatedDeviceBuilder& device);
    /// Its callbacks are over on return, unless one of them calls this.
    bool unplug(const std::string& uid);
    /// Lets `change` alter the device's description, whatever of it: name, streams, rates, controls, signals.
    /// Only the UID stays.
    bool reconfigure(const std::string& uid, const CXBlock<void(SimulatedDeviceBuilder&)>& change);
    /// The default for the direction, and for output the system's default, too; the empty UID is none.
    bool setDefault(HALDirection direction, const std::string& uid);
    bool setDefaultSystemOutput(const std::string& uid);
    /// The device's ID; 0 when it is not plugged in.
    AudioObjectID deviceID(const std::string& uid) const;

    // -- Faults

    /// Counting from now and from 1, the `nth` to `nth + count - 1` reads of `selector` (any for '****') on
    /// any object answer `status`. Reads of sizes count as well. Replaces the rule before; count 0 removes
    /// it.
    void failReads(uint32_t selector, uint64_t nth, uint64_t count, HALStatus status);
    /// Calls `script` once, before the `nth` read of data (not of a size) of `selector` is answered, on the
    /// reading thread: the place to change what the reader has just asked the size of.
    void beforeRead(uint32_t selector, uint64_t nth, CXBlock<void()> script);
    /// Property writes and starts answer `status` from now on, and do nothing; 0 mends it.
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

    /// Waits until every change so far has been told to the listeners without a queue. Not from a listener.
    void settle();

    // -- HALBackend

    HALStatus propertySize(AudioObjectID objectID, const Address& address,
                           std::span<const std::byte> qualifier, uint32_t& size) override;
    HALStatus readProperty(AudioObjectID objectID, const Address& address,
                           std::span<const std::byte> qualifier, std::span<std::byte> out,
                           uint32_t& size) override;
    HALStatus writeProperty(AudioObjectID objectID, const Address& address,
                            std::span<const std::byte> qualifier, std::span<const std::byte> value) override;
    HALStatus addListener(AudioObjectID objectID, const Address& address,
                          const HALListener& listener) override;
    HALStatus removeListener(AudioObjectID objectID, const Address& address,
                             const HALListener& listener) override;
    HALStatus createIOProc(AudioObjectID deviceID, const AudioDeviceIOBlock& block,
                           AudioDeviceIOProcID& procID) override;
    HALStatus destroyIOProc(AudioObjectID deviceID, AudioDeviceIOProcID procID) override;
    HALStatus start(AudioObjectID deviceID, AudioDeviceIOProcID procID) override;
    HALStatus stop(AudioObjectID deviceID, AudioDeviceIOProcID procID) override;
    HALStatus createAggregateDevice(const CXValue& description, AudioObjectID& deviceID) override;
    HALStatus destroyAggregateDevice(AudioObjectID deviceID) override;

private:
    explicit SimulatedBackend(CXRef<SimulatedHardware> hardware);
    ~SimulatedBackend() override;

    const CXRef<SimulatedHardware> _hardware;
};
