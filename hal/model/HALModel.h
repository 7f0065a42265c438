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

/// The HAL behind the published functions: the devices that a hardware driver reports, their properties and
/// listeners, and aggregate devices made of them.
/// Threads:   every function from any thread, listeners and IO callbacks included, without deadlock.
/// Real time: on an IO thread, reads of 'nsrt' and 'fsiz' of the device that runs it, and stop().
/// Waits:     property reads never wait for hardware, but the first read of the system object for the initial
///            enumeration; writes, start() and stop() may, for two seconds at most.
/// Promises:  - object IDs are never reused in a process;
///            - unknown objects return '!obj', unknown properties 'who?', nothing crashes;
///            - listeners are called on the one notification thread, or on their queue, with no lock held;
///              when a
///              listener runs, a read returns the new value or a later one;
///            - a listener on any readable address is called after its value has changed;
///            - a device's sample time never repeats while it runs;
///            - when a device goes, its callbacks are not called again, its objects return '!obj', and 'dev#'
///              of the
///              system object is announced.
class HALModel final : public CXObject, public HALDriverSink {
public:
    using Address = AudioObjectPropertyAddress;

    /// Starts `driver`.
    static CXRef<HALModel> initWithDriver(const CXRef<HALHardwareDriver>& driver);

    /// Stores the size of the property's value now.
    HALStatus propertySize(AudioObjectID objectID, const Address& address,
                           std::span<const std::byte> qualifier, uint32_t& size);
    /// Writes the value into `out` and stores the bytes written. '!siz' when `out` is too small. For a
    /// translation, `out` holds the AudioValueTranslation to carry out. Objects come with a reference for the
    /// caller.
    HALStatus readProperty(AudioObjectID objectID, const Address& address,
                           std::span<const std::byte> qualifier, std::span<std::byte> out, uint32_t& size);
    HALStatus writeProperty(AudioObjectID objectID, const Address& address,
                            std::span<const std::byte> qualifier, std::span<const std::byte> value);

    /// 'nope' when the same listener is there already for this object and address.
    HALStatus addListener(AudioObjectID objectID, const Address& address, const HALListener& listener);
    /// Once this has returned on any other thread, `listener` is not running and will not run again. Works
    /// for objects that are gone, too; 'nope' when there is no such listener.
    HALStatus removeListener(AudioObjectID objectID, const Address& address, const HALListener& listener);

    /// Registers an IO callback, stopped.
    HALStatus createIOProc(AudioObjectID deviceID, const AudioDeviceIOBlock& block,
                           AudioDeviceIOProcID& procID);
    /// Removes it, running or not. On return from any other thread it is not running and will not run again;
    /// on the IO thread, its current cycle is its last. '!dev' when the device is gone; the callback is
    /// removed then too.
    HALStatus destroyIOProc(AudioObjectID deviceID, AudioDeviceIOProcID procID);
    HALStatus start(AudioObjectID deviceID, AudioDeviceIOProcID procID);
    HALStatus stop(AudioObjectID deviceID, AudioDeviceIOProcID procID);

    /// As AudioHardwareCreateAggregateDevice says. The device is there, with all its properties, on return.
    HALStatus createAggregateDevice(const CXValue& description, AudioObjectID& deviceID);
    /// On return none of its callbacks runs, and none will again.
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

    std::mutex _creationMutex; // of aggregates: two of one UID cannot both find it free

    mutable std::mutex
        _mutex;       // what follows; taken before a device's own, never held while anything else is called
    Devices _devices; // in the order they came
    std::unordered_map<const HALDeviceDriver*, CXRef<HALDevice>> _byDriver;
    std::unordered_map<std::string, CXRef<HALDevice>> _byUID;
    std::unordered_map<AudioObjectID, CXRef<HALDevice>> _byStream;
    std::array<AudioObjectID, 3> _defaults{}; // by HALDefault
};

/// The model of the process: of the driver that HALSetHardwareDriver() was given, or of the default driver.
const CXRef<HALModel>& halActiveModel();
