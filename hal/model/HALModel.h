#pragma once

#include "HALDevice.h"
#include "HALHardwareDriver.h"

#include <array>
#include <map>
#include <memory>
#include <unordered_map>

class AggregateRegistry;
class AggregateDevice;

class CXValue;

/// Implements the published functions: the devices that a hardware driver reports, their properties and
/// listeners, and aggregate devices made of them.
/// Threads:   every function from any thread, including listeners and IO callbacks, without deadlock.
/// Real time: on an IO thread, reads of 'nsrt' and 'fsiz' of that thread's device, and stop().
/// Waits:     property reads never wait for hardware, except that the first read of the system object waits
///            for the initial enumeration; writes and stop() may wait for hardware two seconds at most, start()
///            five.
/// Promises:  - object IDs are never reused in a process;
///            - functions return '!obj' for unknown objects and 'who?' for unknown properties;
///            - listeners are called on the notification thread, or on their queue, with no lock held;
///            - when a listener runs, a read returns the new value or a later one;
///            - a listener on any readable address is called after its value has changed;
///            - a device's sample time never repeats while it runs;
///            - after a device has disappeared, its callbacks are not called again, its objects return
///              '!obj', and a change of 'dev#' of the system object is announced.
class HALModel final : public CXObject, public HALDriverSink {
public:
    using Address = AudioObjectPropertyAddress;

    /// Starts `driver`.
    static CXRef<HALModel> initWithDriver(const CXRef<HALHardwareDriver>& driver);

    /// Stores the current size of the property's value.
    HALStatus propertySize(AudioObjectID objectID, const Address& address,
                           std::span<const std::byte> qualifier, uint32_t& size);
    /// Writes the value into `out` and stores the number of bytes written. Returns '!siz' if `out` is too
    /// small. For a translation, `out` holds the AudioValueTranslation to carry out. The caller owns a
    /// reference to each object in the value.
    HALStatus readProperty(AudioObjectID objectID, const Address& address,
                           std::span<const std::byte> qualifier, std::span<std::byte> out, uint32_t& size);
    HALStatus writeProperty(AudioObjectID objectID, const Address& address,
                            std::span<const std::byte> qualifier, std::span<const std::byte> value);

    /// Returns 'nope' if the same listener was already added for this object and address.
    HALStatus addListener(AudioObjectID objectID, const Address& address, const HALListener& listener);
    /// After this returns, `listener` is not called again and, unless it made this call itself, is not
    /// running. Also works for objects that no longer exist. Returns 'nope' if there is no such listener.
    HALStatus removeListener(AudioObjectID objectID, const Address& address, const HALListener& listener);

    /// Registers an IO callback, stopped.
    HALStatus createIOProc(AudioObjectID deviceID, const AudioDeviceIOBlock& block,
                           AudioDeviceIOProcID& procID);
    /// Removes the callback, running or not. On return from any thread but the IO thread it is not running
    /// and will not run again; on the IO thread, its current cycle is its last. Returns '!dev' if the device
    /// has disappeared; the callback was removed then, too.
    HALStatus destroyIOProc(AudioObjectID deviceID, AudioDeviceIOProcID procID);
    HALStatus start(AudioObjectID deviceID, AudioDeviceIOProcID procID);
    HALStatus stop(AudioObjectID deviceID, AudioDeviceIOProcID procID);

    /// Like AudioHardwareCreateAggregateDevice. On return the device exists with all its properties.
    HALStatus createAggregateDevice(const CXValue& description, AudioObjectID& deviceID);
    /// On return none of its callbacks is running, and none will run again.
    HALStatus destroyAggregateDevice(AudioObjectID deviceID);

    void settle() override;

    HALHardwareDriver& driver() const noexcept { return *_driver; }

private:
    using Devices = std::map<AudioObjectID, CXRef<HALDevice>>;

    explicit HALModel(const CXRef<HALHardwareDriver>& driver);
    ~HALModel() override;

    AudioObjectID deviceAdded(const CXRef<HALDeviceDriver>& driver, const HALDeviceState& state) override;
    void deviceChanged(const HALDeviceDriver& driver, const HALDeviceState& state) override;
    void deviceRemoved(const HALDeviceDriver& driver) override;
    void defaultChanged(HALDefault which, const HALDeviceDriver* driver) override;

    CXRef<HALDevice> _device(AudioObjectID deviceID) const;
    CXRef<HALDevice> _deviceOf(const HALDeviceDriver& driver) const;
    CXRef<HALDevice> _deviceWithUID(const std::string& uid) const;
    CXRef<HALDevice> _deviceOfStream(AudioObjectID streamID) const;
    Devices _allDevices() const;
    AudioObjectID _defaultDevice(HALDefault which) const;
    void _announceDeviceList(std::vector<Address> besides = {});

    HALStatus _read(AudioObjectID objectID, const Address& address, HALPropertyWriter& writer);
    HALStatus _readDevice(const HALDevice& device, const Address& address, HALPropertyWriter& writer) const;
    HALStatus _readSystem(const Address& address, HALPropertyWriter& writer) const;
    HALStatus _readSystemTranslation(uint32_t selector, HALPropertyWriter& writer) const;
    void _stopIfIdleLater(AudioObjectID deviceID);
    HALStatus _writeSystem(const Address& address, std::span<const std::byte> value);

    const CXRef<HALHardwareDriver> _driver;
    const std::unique_ptr<HALNotifier> _notifier;
    const std::unique_ptr<AggregateRegistry> _aggregates;

    std::mutex _creationMutex; // of aggregates: two with the same UID cannot both find it unused

    // Guards what follows. Locked before a device's mutex; never held while a driver or listener is called.
    mutable std::mutex _mutex;
    Devices _devices; // in the order in which they were added
    std::unordered_map<const HALDeviceDriver*, CXRef<HALDevice>> _byDriver;
    std::unordered_map<std::string, CXRef<HALDevice>> _byUID;
    std::unordered_map<AudioObjectID, CXRef<HALDevice>> _byStream;
    std::array<AudioObjectID, 3> _defaults{}; // by HALDefault
};

/// The process's model, of the driver set by HALSetHardwareDriver() or else of the default driver.
const CXRef<HALModel>& halActiveModel();
