#pragma once

#include "DXRDeviceManagerNotifier.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

class DXRDeviceInfo;
class DXRDeviceInfoList;
class DXRPropertyListener;

/// Owns every DXRDevice of the process: follows the hardware's device list, notifies of devices that connect,
/// disconnect and change, numbers devices with equal names, and keeps absent devices, so that a device which
/// returns, under any ID and in any port, is the same object. Clients get devices by ID, unique ID, reference
/// or archive. Hidden devices are not in the list until a client looks one up by ID or unique ID.
///
/// Observable keys, by kvo(): connectedDevices, defaultInputDevice, defaultOutputDevice, soundEffectsDevice.
/// Threads:   any. The list is updated on queue(); all state is guarded by lock(), which clients may hold
///            across several calls. Observers are called on the main thread, never inside an update;
///            notifiers are called as registered.
/// Real time: no. Queries wait for an update in progress, which reads the hardware; the default devices are
///            read from the hardware each time. The first call of sharedDeviceManager(), adoptHiddenDevice(),
///            and the two look-ups that adopt a hidden device wait for queue(): on the queue itself they
///            assert, and they may deadlock if the caller holds the lock or anything that a notifier waits
///            for. HiddenDevices::Leave never waits.
/// Fails:     returns a null reference if a look-up has no result or the reference or archive is invalid.
class DXR_EXPORT DXRDeviceManager final : public DXRDeviceKeeper {
public:
    using Devices = DXRDeviceManagerNotifier::Devices;
    using NotifierBlock = DXRDeviceManagerNotifier::Block;
    using WhenRunning = DXRDeviceManagerNotifier::WhenRunning;
    enum class HiddenDevices { Leave, Adopt };

    /// The process's manager. The first call creates it and returns after the initial enumeration; it throws
    /// std::system_error if the hardware cannot be followed because no thread can be created, and the next
    /// call tries again.
    static DXRDeviceManager& sharedDeviceManager();
    /// Returns the same manager: a process has only one.
    static CXRef<DXRDeviceManager> init() { return CXRef(&sharedDeviceManager()); }
    static DXRRecursiveMutex& lock();
    /// The serial queue of all updates, "DXRDeviceManager".
    static dxr::WorkQueue& queue();

    // -- The list

    /// Includes both directions of every device.
    Devices connectedDevices() const;
    CXRef<DXRDevice> defaultInputDevice() const;
    CXRef<DXRDevice> defaultOutputDevice() const;
    CXRef<DXRDevice> soundEffectsDevice() const;

    // -- Look-ups. All but the first also find devices that are not connected.

    CXRef<DXRDevice> deviceWithDeviceID(AudioObjectID deviceID, bool input,
                                        HiddenDevices hidden = HiddenDevices::Adopt);
    CXRef<DXRDevice> deviceWithDeviceUID(const std::optional<std::string>& deviceUID, bool input,
                                         HiddenDevices hidden = HiddenDevices::Adopt);
    /// Looks up the text of a reference, which includes a direction. A device with an equal reference takes
    /// precedence over one that is generically equal; connected devices take precedence over others.
    CXRef<DXRDevice> deviceWithReference(const std::optional<std::string>& reference);
    /// All devices that the reference may refer to, the result of deviceWithReference() first. If that device
    /// is connected and its reference is equal, only that device; otherwise every device of the same model,
    /// present or not, and an absent device with an equal reference.
    std::vector<CXRef<DXRDevice>> devicesWithReference(const std::optional<std::string>& reference);
    /// The device described by the result of archiveForDevice(): the known device, otherwise a new one, which
    /// is disconnected until its hardware appears.
    CXRef<DXRDevice> deviceFromArchive(std::span<const std::byte> archive);
    /// Everything about a device as bytes: "DXRDevice:" and JSON. Empty if `device` is null.
    static std::optional<std::vector<std::byte>> archiveForDevice(const CXRef<DXRDevice>& device);
    /// The other direction of the same physical device.
    CXRef<DXRDevice> counterpartForDevice(const CXRef<DXRDevice>& device) const;

    // -- Notifications

    /// Calls `block` after every update in which a device appeared, disappeared or changed: asynchronously on
    /// `queue`, or without one on the manager's queue, which it must not block. Registering a block twice has
    /// no effect.
    void addDeviceNotifier(const CXRef<dxr::WorkQueue>& queue, const NotifierBlock& block);
    /// Unregisters `block`: it is not called from now on. With WhenRunning::Return, a call in progress on
    /// another thread may outlast this function; with Wait, this function waits for it, and the caller must
    /// hold nothing that the block may wait for.
    void removeDeviceNotifier(const NotifierBlock& block, WhenRunning whenRunning = WhenRunning::Return);
    const CXRef<DXRKVOHelper>& kvo() const noexcept { return _kvo; }

    /// Requests an update of the list soon; requests before it are merged. Does nothing if `needsUpdate` is
    /// false.
    void setNeedsDevicesUpdate(bool needsUpdate);
    /// Adds a hidden device to the list permanently. Returns false if the device does not exist or is not
    /// hidden.
    bool adoptHiddenDevice(const std::optional<std::string>& deviceUID);

    // -- For DXRDevice

    dxr::WorkQueue& updateQueue() const override { return queue(); }
    void deviceWasUpdated(const CXRef<DXRDevice>& device) override;

private:
    friend CXRef<DXRDeviceManager> DXRNewDeviceManager();

    struct Changes;

    DXRDeviceManager();
    ~DXRDeviceManager() override;

    static std::span<const DXRKVOProperty> _observableProperties() noexcept;
    bool _start();
    CXRef<DXRPropertyListener> _listener(uint32_t selector, void (DXRDeviceManager::*changed)());
    void _devicesChanged() { _updateDeviceList(false); }
    void _defaultDevicesChanged();

    std::vector<AudioObjectID> _deviceIDList();
    void _updateDeviceList(bool updateDefaults);
    void _updateConnected(std::span<const AudioObjectID> ids, Changes& changes);
    bool _keep(DXRDeviceInfo& info, Changes& changes);
    void _meet(AudioObjectID deviceID, Changes& changes);
    void _archiveGone(Changes& changes);
    void _returnOrAdd(Changes& changes);
    void _connectInfo(const CXRef<DXRDeviceInfo>& info, AudioObjectID deviceID, Changes& changes);
    void _updateDeviceInfo(DXRDeviceInfo& info, AudioObjectID deviceID, Devices& connected,
                           Devices* disconnected);
    void _updateDevicePropertyListeners(DXRDeviceInfo& info);
    bool _updateDefaultDevices();
    void _announceDefaultDevices();
    void _retryAfter(bool hasFailed);

    /// For a connected device.
    CXRef<DXRDevice> _liveDevice(AudioObjectID deviceID, bool input) const;
    bool _adoptIfHidden(const std::optional<std::string>& deviceUID);
    CXRef<DXRDevice> _deviceWithReference(const CXRef<DXRDeviceReference>& reference, bool input,
                                          const CXPlist* archive);
    CXRef<DXRDevice> _deviceOfInfo(DXRDeviceInfo& info, bool input, bool isGenericMatch,
                                   const CXPlist* archive);

    const CXRef<DXRKVOHelper> _kvo;
    // The values last announced to observers; accessed on the main thread only.
    Devices _kvo_connectedDevices;
    CXRef<DXRDevice> _kvo_defaultInputDevice;
    CXRef<DXRDevice> _kvo_defaultOutputDevice;
    CXRef<DXRDevice> _kvo_soundEffectsDevice;

    // Everything below is guarded by lock().
    std::vector<CXRef<DXRDeviceManagerNotifier>> _notifiers;
    const std::unique_ptr<DXRDeviceInfoList> _archivedDevices; // in the order of their disappearance
    const std::unique_ptr<DXRDeviceInfoList> _connectedDevicesByID;
    std::map<std::string, AudioObjectID> _hiddenDevices; // adopted; by UID, with the ID as last read
    Devices _updatedDevices;
    CXRef<DXRPropertyListener> _devicesChangedListener;
    std::array<CXRef<DXRPropertyListener>, 3> _defaultDevicesChangedListeners;
    std::array<CXRef<DXRDevice>, 3> _defaultDevices; // input, output, sound effects: to detect changes
    std::array<bool, 3> _isDefaultLost{};            // there is none since the one in _defaultDevices
    bool _needsDevicesUpdate = false;
    uint64_t _archivedCount = 0; // devices archived so far
    uint32_t _retries = 0;       // of an update with failed reads
    bool _isRetryPending = false;
};
