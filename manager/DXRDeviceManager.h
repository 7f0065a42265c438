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
/// returns, under any ID and in any port, is the same object. Clients get their devices here: by ID, unique
/// ID, reference or archive. Hidden devices are not in the list until a client looks one up by ID or unique
/// ID.
///
/// Observable keys, by kvo(): connectedDevices, defaultInputDevice, defaultOutputDevice, soundEffectsDevice.
/// Threads:   any. The list is brought up to date on queue(); all state is under lock(), which clients may
///            take around several calls. Observers are called on the main thread, never inside an update;
///            notifiers as registered.
/// Real time: no. Queries wait for an update in progress, which reads the hardware; the default devices are
///            read from the hardware each time. sharedDeviceManager() the first time, adoptHiddenDevice(),
///            and the two look-ups that adopt a hidden device wait for queue(): on the queue itself they
///            assert, and a caller that holds the lock, or anything that a notifier waits for, may deadlock.
///            HiddenDevices::Leave never waits.
/// Fails:     with an empty reference: a look-up without a result, text that is no reference or archive.
class DXR_EXPORT DXRDeviceManager final : public DXRDeviceKeeper {
public:
    using Devices = DXRDeviceManagerNotifier::Devices;
    using NotifierBlock = DXRDeviceManagerNotifier::Block;
    using WhenRunning = DXRDeviceManagerNotifier::WhenRunning;
    enum class HiddenDevices { Leave, Adopt };

    /// The process's manager. The first call makes it, and returns after the initial enumeration.
    static DXRDeviceManager& sharedDeviceManager();
    /// The same manager: there is one in a process.
    static CXRef<DXRDeviceManager> init() { return CXRef(&sharedDeviceManager()); }
    static DXRRecursiveMutex& lock();
    /// The serial queue of all updates, "DXRDeviceManager".
    static dxr::WorkQueue& queue();

    // -- The list

    /// Both directions of every device count.
    Devices connectedDevices() const;
    CXRef<DXRDevice> defaultInputDevice() const;
    CXRef<DXRDevice> defaultOutputDevice() const;
    CXRef<DXRDevice> soundEffectsDevice() const;

    // -- Looking up. Devices that are not connected are found by all but the first.

    CXRef<DXRDevice> deviceWithDeviceID(AudioObjectID deviceID, bool input,
                                        HiddenDevices hidden = HiddenDevices::Adopt);
    CXRef<DXRDevice> deviceWithDeviceUID(const std::optional<std::string>& deviceUID, bool input,
                                         HiddenDevices hidden = HiddenDevices::Adopt);
    /// By a reference's text, which names a direction. A device with an equal reference comes first, then one
    /// that is equal generically; connected ones before others.
    CXRef<DXRDevice> deviceWithReference(const std::optional<std::string>& reference);
    /// All devices that the reference may mean, the one above first. Only that one if it is connected and its
    /// reference equal; else every device of the same model, present or not, and an absent one with an equal
    /// reference.
    std::vector<CXRef<DXRDevice>> devicesWithReference(const std::optional<std::string>& reference);
    /// The device that archiveForDevice() described: the known one, else a new one that is not connected
    /// until its hardware is.
    CXRef<DXRDevice> deviceFromArchive(std::span<const std::byte> archive);
    /// Everything about a device in bytes: "DXRDevice:" and JSON. Nothing for no device.
    static std::optional<std::vector<std::byte>> archiveForDevice(const CXRef<DXRDevice>& device);
    /// The other direction of the same physical device.
    CXRef<DXRDevice> counterpartForDevice(const CXRef<DXRDevice>& device) const;

    // -- Following

    /// Calls `block` after every update in which a device came, went or changed: asynchronously on `queue`,
    /// or without one on the manager's queue, which it must not keep waiting. The same block is registered
    /// once.
    void addDeviceNotifier(const CXRef<dxr::WorkQueue>& queue, const NotifierBlock& block);
    /// The block is not called from now on. A call that is running on another thread may still be when this
    /// returns, unless `whenRunning` says Wait; then the caller must hold nothing that the block may wait
    /// for.
    void removeDeviceNotifier(const NotifierBlock& block, WhenRunning whenRunning = WhenRunning::Return);
    const CXRef<DXRKVOHelper>& kvo() const noexcept { return _kvo; }

    /// Has the list brought up to date soon; any number of requests until then is one. False does nothing.
    void setNeedsDevicesUpdate(bool needsUpdate);
    /// Makes a hidden device part of the list for good. False, and nothing happens, when it is not there or
    /// not hidden.
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
    void _start();
    CXRef<DXRPropertyListener> _listener(uint32_t selector, void (DXRDeviceManager::*changed)());
    void _devicesChanged() { _updateDeviceList(false); }
    void _defaultDevicesChanged();

    std::vector<AudioObjectID> _deviceIDList() const;
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
    void _resetDisplayNames(DXRDeviceInfo& info);
    void _updateDeviceDisplayNames();
    void _updateDeviceDisplayNamesWithSource();
    template <class Name, class Update> void _number(const Name& name, const Update& update);
    bool _updateDefaultDevices();
    void _retryAfter(bool hasFailed);

    /// Of a connected device.
    CXRef<DXRDevice> _liveDevice(AudioObjectID deviceID, bool input) const;
    bool _adoptIfHidden(const std::optional<std::string>& deviceUID);
    CXRef<DXRDevice> _deviceWithReference(const CXRef<DXRDeviceReference>& reference, bool input,
                                          const CXPlist* archive);
    CXRef<DXRDevice> _deviceOfInfo(DXRDeviceInfo& info, bool input, bool isGenericMatch,
                                   const CXPlist* archive);

    const CXRef<DXRKVOHelper> _kvo;
    // The values last announced to observers; written and read on the main thread.
    Devices _kvo_connectedDevices;
    CXRef<DXRDevice> _kvo_defaultInputDevice;
    CXRef<DXRDevice> _kvo_defaultOutputDevice;
    CXRef<DXRDevice> _kvo_soundEffectsDevice;

    // All of the following is under lock().
    std::vector<CXRef<DXRDeviceManagerNotifier>> _notifiers;
    const std::unique_ptr<DXRDeviceInfoList> _archivedDevices; // in the order they went
    const std::unique_ptr<DXRDeviceInfoList> _connectedDevicesByID;
    std::set<std::string> _hiddenDeviceUIDs; // adopted
    Devices _updatedDevices;
    CXRef<DXRPropertyListener> _devicesChangedListener;
    std::array<CXRef<DXRPropertyListener>, 3> _defaultDevicesChangedListeners;
    std::array<CXRef<DXRDevice>, 3> _defaultDevices; // input, output, sound effects: to see changes by
    bool _needsDevicesUpdate = false;
    uint64_t _archivedCount = 0; // so far
    uint32_t _retries = 0;       // of an update that could not read everything
    bool _isRetryPending = false;
};
