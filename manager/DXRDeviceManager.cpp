#include "DXRDeviceManager.h"

#include "CXErrorAdditions.h"
#include "DXRDeviceArchive.h"
#include "DXRDeviceControl.h"
#include "DXRDeviceInfoList.h"
#include "DXRDeviceManagerPrivate.h"
#include "DXRDisplayNames.h"
#include "DXRPropertyAddress.h"
#include "DXRPropertyListener.h"
#include "DXRReadCheck.h"
#include "QDL.h"
#include "SerialQueue.h"

#include <algorithm>
#include <cstdlib>
#include <system_error>

namespace {

constexpr std::array bothDirections{true, false}; // input first

// After a failed read, the update is repeated with growing delays; after the last one, at the next change.
constexpr uint64_t firstRetryNanoseconds = 20'000'000;
constexpr uint32_t maximumRetries = 8;

struct Default {
    uint32_t selector;
    bool isInput;
    const char* key;
};
constexpr std::array defaults{
    Default{kAudioHardwarePropertyDefaultInputDevice, true, "defaultInputDevice"},
    Default{kAudioHardwarePropertyDefaultOutputDevice, false, "defaultOutputDevice"},
    Default{kAudioHardwarePropertyDefaultSystemOutputDevice, false, "soundEffectsDevice"},
};

/// A reference, parsed.
struct ParsedReference {
    CXRef<DXRDeviceReference> whole; // without the direction; null if the text is no reference with one
    bool isInput;
};

ParsedReference parsedReference(const std::optional<std::string>& text)
{
    const CXRef<DXRDeviceReference> parsed = text ? DXRDeviceReference::initWithString(*text) : nullptr;
    const std::optional<bool> input = parsed ? parsed->isInput() : std::nullopt;
    return {input ? parsed->deviceReferenceWithInput(std::nullopt) : nullptr, input.value_or(false)};
}

} // namespace

/// The results of an update so far.
struct DXRDeviceManager::Changes {
    Devices connected;
    Devices disconnected;
    std::vector<AudioObjectID> gone;         // connected infos whose devices have disappeared
    std::vector<CXRef<DXRDeviceInfo>> fresh; // new infos, by ID
    bool needsAnother = false; // a listed device has become a different one; the next update adds it
};

// ---- The one manager

DXRRecursiveMutex& DXRDeviceManager::lock()
{
    static const CXRef<DXRRecursiveMutex>* const mutex =
        new CXRef(DXRRecursiveMutex::init()); // never destroyed
    return **mutex;
}

dxr::WorkQueue& DXRDeviceManager::queue()
{
    static const CXRef<dxr::SerialQueue>* const serial =
        new CXRef(dxr::SerialQueue::initWithLabel("DXRDeviceManager")); // never destroyed
    return **serial;
}

DXRDeviceManager& DXRDeviceManager::sharedDeviceManager()
{
    static const CXRef<DXRDeviceManager>* shared = nullptr; // guarded by the lock
    const CXRef<DXRDeviceManager>* manager = nullptr;
    lock().execute([&] {
        if (!shared) {
            shared = new CXRef(DXRNewDeviceManager()); // never destroyed
            DXRDeviceKeeper::setShared(*shared);
        }
        manager = shared;
    });
    return **manager;
}

CXRef<DXRDeviceManager> DXRNewDeviceManager()
{
    CX_ASSERT(!DXRDeviceManager::queue().isCurrent());
    CXRef<DXRDeviceManager> manager = CXRef<DXRDeviceManager>::adopt(new DXRDeviceManager);
    bool isFollowing = false;
    DXRDeviceManager::queue().sync([&] { isFollowing = manager->_start(); });
    if (!isFollowing) // it would never notice a device; the next one made may
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                "cannot follow the audio hardware");
    return manager;
}

std::span<const DXRKVOProperty> DXRDeviceManager::_observableProperties() noexcept
{
    using P = DXRKVOProperty;
    using M = DXRDeviceManager;
    static constexpr std::array table{
        P::of<&M::connectedDevices, &M::_kvo_connectedDevices>("connectedDevices"),
        P::of<&M::defaultInputDevice, &M::_kvo_defaultInputDevice>("defaultInputDevice"),
        P::of<&M::defaultOutputDevice, &M::_kvo_defaultOutputDevice>("defaultOutputDevice"),
        P::of<&M::soundEffectsDevice, &M::_kvo_soundEffectsDevice>("soundEffectsDevice"),
    };
    return table;
}

DXRDeviceManager::DXRDeviceManager()
    : _kvo(DXRKVOHelper::initWithObject(*this, _observableProperties(),
                                        [](const CXObject&) { return queue().isCurrent(); })),
      _archivedDevices(std::make_unique<DXRDeviceInfoList>()),
      _connectedDevicesByID(std::make_unique<DXRDeviceInfoList>())
{}

DXRDeviceManager::~DXRDeviceManager() = default;

bool DXRDeviceManager::_start()
{
    const bool isFollowing = lock().execond([&] {
        _devicesChangedListener =
            _listener(kAudioHardwarePropertyDevices, &DXRDeviceManager::_devicesChanged);
        for (size_t i = 0; i < defaults.size(); ++i)
            _defaultDevicesChangedListeners[i] =
                _listener(defaults[i].selector, &DXRDeviceManager::_defaultDevicesChanged);
        return _devicesChangedListener->start() &&
               std::ranges::all_of(_defaultDevicesChangedListeners, [](auto& each) { return each->start(); });
    });
    if (isFollowing)
        _updateDeviceList(true);
    return isFollowing;
}

CXRef<DXRPropertyListener> DXRDeviceManager::_listener(uint32_t selector, void (DXRDeviceManager::*changed)())
{
    const AudioObjectPropertyAddress address{selector, kAudioObjectPropertyScopeGlobal,
                                             kAudioObjectPropertyElementMain};
    return DXRPropertyListener::initWithObjectID(
        kAudioObjectSystemObject, &address, CXRef(&queue()), CXRef<CXObject>(this),
        [changed](const CXRef<CXObject>& self, const AudioObjectPropertyAddress* /*address*/) {
            (static_cast<DXRDeviceManager*>(self.get())->*changed)();
        });
}

// ---- The list

DXRDeviceManager::Devices DXRDeviceManager::connectedDevices() const
{
    if (_kvo->isUpdateInProgress())
        return _kvo_connectedDevices;
    Devices devices;
    lock().execute([&] {
        for (const auto& [deviceID, info] : _connectedDevicesByID->infos()) {
            for (const bool isInput : bothDirections) {
                if (info->live(isInput))
                    devices.insert(info->live(isInput));
            }
        }
    });
    return devices;
}

CXRef<DXRDevice> DXRDeviceManager::defaultInputDevice() const
{
    return _kvo->isUpdateInProgress() ? _kvo_defaultInputDevice
                                      : _liveDevice(QDLAudioDeviceDefaultInputDeviceID(), true);
}

CXRef<DXRDevice> DXRDeviceManager::defaultOutputDevice() const
{
    return _kvo->isUpdateInProgress() ? _kvo_defaultOutputDevice
                                      : _liveDevice(QDLAudioDeviceDefaultOutputDeviceID(), false);
}

CXRef<DXRDevice> DXRDeviceManager::soundEffectsDevice() const
{
    return _kvo->isUpdateInProgress() ? _kvo_soundEffectsDevice
                                      : _liveDevice(QDLAudioDeviceDefaultSystemOutputDeviceID(), false);
}

CXRef<DXRDevice> DXRDeviceManager::_liveDevice(AudioObjectID deviceID, bool input) const
{
    CXRef<DXRDevice> device;
    lock().execute([&] {
        if (const CXRef<DXRDeviceInfo> info = _connectedDevicesByID->at(deviceID))
            device = info->live(input);
    });
    return device;
}

// ---- Looking up

CXRef<DXRDevice> DXRDeviceManager::deviceWithDeviceID(AudioObjectID deviceID, bool input,
                                                      HiddenDevices hidden)
{
    CXRef<DXRDevice> device = _liveDevice(deviceID, input);
    if (!device && hidden == HiddenDevices::Adopt && _adoptIfHidden(QDLAudioDeviceUIDFromDeviceID(deviceID)))
        device = _liveDevice(deviceID, input);
    return device;
}

CXRef<DXRDevice> DXRDeviceManager::deviceWithDeviceUID(const std::optional<std::string>& deviceUID,
                                                       bool input, HiddenDevices hidden)
{
    const CXRef<DXRDeviceReference> reference =
        DXRDeviceReference::initWithDeviceUID(deviceUID, std::nullopt);
    if (!reference)
        return nullptr;
    const auto find = [&] {
        CXRef<DXRDevice> device;
        lock().execute([&] { device = _deviceWithReference(reference, input, nullptr); });
        return device;
    };
    CXRef<DXRDevice> device = find();
    if (!device && hidden == HiddenDevices::Adopt && _adoptIfHidden(deviceUID))
        device = find();
    return device;
}

CXRef<DXRDevice> DXRDeviceManager::deviceWithReference(const std::optional<std::string>& reference)
{
    const ParsedReference wanted = parsedReference(reference);
    CXRef<DXRDevice> device;
    if (wanted.whole)
        lock().execute([&] { device = _deviceWithReference(wanted.whole, wanted.isInput, nullptr); });
    return device;
}

std::vector<CXRef<DXRDevice>>
DXRDeviceManager::devicesWithReference(const std::optional<std::string>& reference)
{
    const ParsedReference wanted = parsedReference(reference);
    std::vector<CXRef<DXRDevice>> devices;
    const auto add = [&](const CXRef<DXRDeviceInfo>& info) {
        const CXRef<DXRDevice> device = info ? _deviceOfInfo(*info, wanted.isInput, false, nullptr) : nullptr;
        if (device && std::ranges::find(devices, device) == devices.end())
            devices.push_back(device);
        return bool(info);
    };
    if (!wanted.whole)
        return devices;
    lock().execute([&] {
        if (add(_connectedDevicesByID->firstEqual(*wanted.whole)))
            return;
        std::ranges::for_each(_connectedDevicesByID->allGenericallyEqual(*wanted.whole), add);
        add(_archivedDevices->firstEqual(*wanted.whole));
        std::ranges::for_each(_archivedDevices->allGenericallyEqual(*wanted.whole), add);
    });
    return devices;
}

CXRef<DXRDevice> DXRDeviceManager::deviceFromArchive(std::span<const std::byte> archive)
{
    const std::optional<CXPlist> dictionary = DXRDeviceArchive::dictionaryIn(archive);
    if (!dictionary)
        return nullptr;
    const ParsedReference wanted = parsedReference(DXRDeviceArchive(*dictionary).string("ref"));
    CXRef<DXRDevice> device;
    if (wanted.whole)
        lock().execute([&] { device = _deviceWithReference(wanted.whole, wanted.isInput, &*dictionary); });
    return device;
}

std::optional<std::vector<std::byte>> DXRDeviceManager::archiveForDevice(const CXRef<DXRDevice>& device)
{
    return device ? std::optional(DXRDeviceArchive::bytesOf(device->archive())) : std::nullopt;
}

CXRef<DXRDevice> DXRDeviceManager::_deviceWithReference(const CXRef<DXRDeviceReference>& reference,
                                                        bool input, const CXPlist* archive)
{
    for (const auto* list : {_connectedDevicesByID.get(), _archivedDevices.get()}) {
        if (const CXRef<DXRDeviceInfo> info = list->firstEqual(*reference))
            return _deviceOfInfo(*info, input, false, archive);
        if (const CXRef<DXRDeviceInfo> info = list->firstGenericallyEqual(*reference))
            return _deviceOfInfo(*info, input, true, archive);
    }
    CXRef<DXRDevice> device = archive ? DXRDeviceControl::initWithArchive(*archive, CXRef(this)) : nullptr;
    if (device) {
        const CXRef<DXRDeviceInfo> info = DXRDeviceInfo::init();
        info->reference = reference;
        info->live(input) = device;
        info->archiveOrder = ++_archivedCount;
        _archivedDevices->add(info->archiveOrder, info);
    }
    return device;
}

CXRef<DXRDevice> DXRDeviceManager::_deviceOfInfo(DXRDeviceInfo& info, bool input, bool isGenericMatch,
                                                 const CXPlist* archive)
{
    CXRef<DXRDevice> device = info.live(input) ? info.live(input) : info.stashed(input);
    if (device || !archive)
        return device;
    device = DXRDeviceControl::initWithArchive(*archive, CXRef(this));
    if (!device)
        return nullptr;
    if (isGenericMatch)
        DXRDeviceControl(*device).setDeviceReference(info.reference->deviceReferenceWithInput(input));
    info.stashed(input) = device;
    return device;
}

CXRef<DXRDevice> DXRDeviceManager::counterpartForDevice(const CXRef<DXRDevice>& device) const
{
    if (!device)
        return nullptr;
    const bool isInput = device->isInput();
    if (device->isConnected())
        return _liveDevice(device->deviceID(), !isInput);
    CXRef<DXRDevice> counterpart;
    lock().execute([&] {
        for (const auto& [order, info] : _archivedDevices->infos()) {
            if (info->live(isInput) == device) {
                counterpart = info->live(!isInput);
                return;
            }
        }
    });
    return counterpart;
}

// ---- Following

void DXRDeviceManager::addDeviceNotifier(const CXRef<dxr::WorkQueue>& queue, const NotifierBlock& block)
{
    if (!block)
        return;
    lock().execute([&] {
        if (std::ranges::none_of(_notifiers, [&](const auto& each) { return each->block() == block; }))
            _notifiers.push_back(DXRDeviceManagerNotifier::initWithQueue(queue, block));
    });
}

void DXRDeviceManager::removeDeviceNotifier(const NotifierBlock& block, WhenRunning whenRunning)
{
    CXRef<DXRDeviceManagerNotifier> removed; // ended and released without the lock
    lock().execute([&] {
        const auto found =
            std::ranges::find_if(_notifiers, [&](const auto& each) { return each->block() == block; });
        if (found == _notifiers.end())
            return;
        removed = std::move(*found);
        _notifiers.erase(found);
    });
    if (removed)
        removed->end(whenRunning);
}

void DXRDeviceManager::setNeedsDevicesUpdate(bool needsUpdate)
{
    if (!needsUpdate)
        return;
    lock().execute([&] {
        if (std::exchange(_needsDevicesUpdate, true))
            return;
        queue().async([weak = CXWeak(*this)] {
            const CXRef<DXRDeviceManager> self = weak.lock();
            if (self && lock().execond([&] { return std::exchange(self->_needsDevicesUpdate, false); }))
                self->_updateDeviceList(false);
        });
    });
}

bool DXRDeviceManager::adoptHiddenDevice(const std::optional<std::string>& deviceUID)
{
    CX_ASSERT(!queue().isCurrent());
    return _adoptIfHidden(deviceUID);
}

bool DXRDeviceManager::_adoptIfHidden(const std::optional<std::string>& deviceUID)
{
    const AudioObjectID deviceID = QDLAudioDeviceIDFromUID(deviceUID);
    if (deviceID == kAudioObjectUnknown || !QDLAudioDeviceIsHidden(deviceID))
        return false;
    const bool isNew = lock().execond([&] { return _hiddenDevices.emplace(*deviceUID, deviceID).second; });
    if (!isNew && queue().isCurrent())
        return false; // already in the list, or added by the update in progress
    CX_ASSERT(!queue().isCurrent());
    queue().sync([&] { _updateDeviceList(true); });
    return true;
}

void DXRDeviceManager::deviceWasUpdated(const CXRef<DXRDevice>& device)
{
    if (!device)
        return;
    lock().execute([&] { _updatedDevices.insert(device); });
    setNeedsDevicesUpdate(true);
}

// ---- The update

std::vector<AudioObjectID> DXRDeviceManager::_deviceIDList()
{
    const DXRReadCheck listRead;
    uint32_t count = 0;
    AudioObjectID* const list = QDLAudioDeviceIDList(&count);
    std::vector<AudioObjectID> ids(list, list + count);
    std::free(list);
    if (listRead.hasFailed()) { // the listed devices stay, and the read is repeated until it succeeds
        ids.clear();
        for (const auto& [deviceID, info] : _connectedDevicesByID->infos())
            ids.push_back(info->deviceID);
        _retries = std::min(_retries, maximumRetries - 1);
    }
    static const CXRef<DXRPropertyAddress>* const hidden = new CXRef(DXRPropertyAddress::deviceIsHidden());
    std::erase_if(ids, [this](AudioObjectID deviceID) {
        const DXRReadCheck read;
        uint32_t isHidden = 0;
        if ((*hidden)->getUInt32(&isHidden, deviceID))
            return isHidden != 0;
        // The read is repeated soon. Until then, a listed device stays and another one is not added.
        return read.hasFailed() && !_connectedDevicesByID->at(deviceID);
    });
    for (auto& [uid, deviceID] : _hiddenDevices) {
        const DXRReadCheck read;
        const AudioObjectID now = QDLAudioDeviceIDFromUID(uid);
        if (!read.hasFailed())
            deviceID = now;
        if (deviceID != kAudioObjectUnknown)
            ids.push_back(deviceID);
    }
    std::ranges::sort(ids);
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    return ids;
}

void DXRDeviceManager::_updateDeviceList(bool updateDefaults)
{
    const DXRReadCheck reads;
    Changes changes;
    Devices updated;
    std::vector<CXRef<DXRDeviceManagerNotifier>> notifiers;
    lock().execute([&] {
        _needsDevicesUpdate = false;
        _updateConnected(_deviceIDList(), changes);
        _archiveGone(changes);
        _returnOrAdd(changes);
        // Display names depend on the list and on the values of the devices.
        if (!changes.connected.empty() || !changes.disconnected.empty() || !_updatedDevices.empty())
            DXRDisplayNames::number(*_connectedDevicesByID, _updatedDevices);
        // If a default device was announced before the device was listed, the default changes only now.
        if (updateDefaults || !changes.connected.empty() || !changes.disconnected.empty())
            _updateDefaultDevices();
        updated = std::exchange(_updatedDevices, {});
        updated.insert(changes.connected.begin(), changes.connected.end());
        updated.insert(changes.disconnected.begin(), changes.disconnected.end());
        if (!updated.empty())
            notifiers = _notifiers;
        _retryAfter(reads.hasFailed());
    });
    if (changes.needsAnother)
        setNeedsDevicesUpdate(true);
    if (!updated.empty())
        _kvo->updateValueForKey("connectedDevices");
    for (const CXRef<DXRDeviceManagerNotifier>& notifier : notifiers)
        notifier->notify(changes.connected, changes.disconnected, updated);
}

void DXRDeviceManager::_updateConnected(std::span<const AudioObjectID> ids, Changes& changes)
{
    const auto& infos = _connectedDevicesByID->infos();
    auto known = infos.begin(); // both are in ascending order
    for (const AudioObjectID deviceID : ids) {
        for (; known != infos.end() && known->first < deviceID; ++known)
            changes.gone.push_back(known->second->deviceID);
        if (known == infos.end() || known->first != deviceID)
            _meet(deviceID, changes);
        else if (DXRDeviceInfo& info = *(known++)->second; !_keep(info, changes))
            changes.gone.push_back(deviceID);
    }
    for (; known != infos.end(); ++known)
        changes.gone.push_back(known->second->deviceID);
}

bool DXRDeviceManager::_keep(DXRDeviceInfo& info, Changes& changes)
{
    const bool isMended = info.identify(info.deviceID);
    const CXRef<DXRDeviceReference>& reference = info.currentReference();
    if (!reference)
        return false;
    for (const bool isInput : bothDirections) {
        if (info.live(isInput) && !DXRDeviceControl(*info.live(isInput)).confirmGenericChannelCounts()) {
            changes.needsAnother = true;
            return false;
        }
    }
    if (info.reference != reference && (isMended || !info.reference->isEqual(reference.get())))
        _connectedDevicesByID->setReference(info, reference);
    _updateDeviceInfo(info, info.deviceID, changes.connected, &changes.disconnected);
    for (const bool isInput : bothDirections) {
        if (isMended && info.live(isInput))
            DXRDeviceControl(*info.live(isInput)).setDeviceReference(info.currentReference(isInput));
    }
    return true;
}

void DXRDeviceManager::_meet(AudioObjectID deviceID, Changes& changes)
{
    const CXRef<DXRDeviceInfo> info = DXRDeviceInfo::init();
    info->deviceID = deviceID;
    _updateDevicePropertyListeners(*info); // before its streams are read, so that no change is missed
    info->identify(deviceID);
    // An incomplete reference would not find the known object of the device, or its settings. The read is
    // repeated soon; the last repetition adds the device as it is.
    if (info->currentReference() && (!info->isIncomplete() || _retries >= maximumRetries))
        changes.fresh.push_back(info);
}

void DXRDeviceManager::_archiveGone(Changes& changes)
{
    for (const AudioObjectID deviceID : changes.gone) {
        const CXRef<DXRDeviceInfo> info = _connectedDevicesByID->remove(deviceID);
        info->deviceID = kAudioObjectUnknown;
        info->archiveOrder = ++_archivedCount;
        _archivedDevices->add(info->archiveOrder, info);
        for (const bool isInput : bothDirections) {
            if (const CXRef<DXRDevice>& device = info->live(isInput)) {
                DXRDeviceControl(*device).disconnect();
                changes.disconnected.insert(device);
            }
        }
        _updateDevicePropertyListeners(*info);
        DXRDisplayNames::reset(*info, _updatedDevices);
    }
}

void DXRDeviceManager::_returnOrAdd(Changes& changes)
{
    const auto returnBy = [&](bool isGenericMatch) {
        std::erase_if(changes.fresh, [&](const CXRef<DXRDeviceInfo>& fresh) {
            const CXRef<DXRDeviceReference>& reference = fresh->currentReference();
            if (isGenericMatch && !reference->isGeneric())
                return false;
            const CXRef<DXRDeviceInfo> archived = isGenericMatch
                                                      ? _archivedDevices->firstGenericallyEqual(*reference)
                                                      : _archivedDevices->firstEqual(*reference);
            if (!archived)
                return false;
            _archivedDevices->remove(archived->archiveOrder);
            archived->adoptIdentityOf(*fresh);
            _connectInfo(archived, fresh->deviceID, changes);
            return true;
        });
    };
    returnBy(false);
    returnBy(true);
    for (const CXRef<DXRDeviceInfo>& info : changes.fresh)
        _connectInfo(info, info->deviceID, changes);
}

void DXRDeviceManager::_connectInfo(const CXRef<DXRDeviceInfo>& info, AudioObjectID deviceID,
                                    Changes& changes)
{
    if (!info->reference || !info->reference->isEqual(info->currentReference().get()))
        info->reference = info->currentReference();
    _updateDeviceInfo(*info, deviceID, changes.connected, nullptr);
    _connectedDevicesByID->add(deviceID, info);
    _updateDevicePropertyListeners(*info);
}

void DXRDeviceManager::_updateDeviceInfo(DXRDeviceInfo& info, AudioObjectID deviceID, Devices& connected,
                                         Devices* disconnected)
{
    info.deviceID = deviceID;
    for (const bool isInput : bothDirections) {
        CXRef<DXRDevice>& live = info.live(isInput);
        CXRef<DXRDevice>& stashed = info.stashed(isInput);
        const CXRef<DXRDeviceReference>& reference = info.currentReference(isInput);
        if (reference && live) {
            const bool isReconnected = DXRDeviceControl(*live).connect(deviceID, reference);
            if (!disconnected)
                connected.insert(live);
            else if (DXRDeviceControl(*live).refreshIfIncomplete() || isReconnected)
                _updatedDevices.insert(live);
        } else if (reference) {
            if (stashed) {
                live = std::exchange(stashed, nullptr);
                DXRDeviceControl(*live).connect(deviceID, reference);
            } else {
                live = DXRDeviceControl::initWithDeviceID(deviceID, reference, CXRef(this));
            }
            if (live)
                connected.insert(live);
        } else if (live) {
            stashed = std::exchange(live, nullptr);
            DXRDeviceControl(*stashed).disconnect();
            if (disconnected)
                disconnected->insert(stashed);
        }
    }
}

void DXRDeviceManager::_updateDevicePropertyListeners(DXRDeviceInfo& info)
{
    if (info.deviceID == kAudioObjectUnknown) {
        if (const CXRef<DXRPropertyListener> streams = std::exchange(info.streams, nullptr))
            streams->stop();
    } else if (!info.streams) {
        constexpr AudioObjectPropertyAddress streams{kAudioDevicePropertyStreams,
                                                     kAudioObjectPropertyScopeWildcard,
                                                     kAudioObjectPropertyElementWildcard};
        info.streams = DXRPropertyListener::initWithObjectID(
            info.deviceID, &streams, CXRef(&queue()), CXRef<CXObject>(this),
            [](const CXRef<CXObject>& self, const AudioObjectPropertyAddress* /*address*/) {
                static_cast<DXRDeviceManager*>(self.get())->setNeedsDevicesUpdate(true);
            });
        info.streams->start();
    }
}

// Failed reads are rare and count as missing values; the whole update is then repeated.
void DXRDeviceManager::_retryAfter(bool hasFailed)
{
    if (!hasFailed || _retries >= maximumRetries) {
        _retries = 0;
        return;
    }
    if (std::exchange(_isRetryPending, true))
        return;
    const auto retry = [weak = CXWeak(*this)] {
        if (const CXRef<DXRDeviceManager> self = weak.lock()) {
            lock().execute([&] { self->_isRetryPending = false; });
            self->_updateDeviceList(true);
        }
    };
    try {
        queue().after(firstRetryNanoseconds << _retries, retry);
        ++_retries;
    } catch (const std::system_error&) { // no thread can be created; the next change repeats the update
        _isRetryPending = false;
    }
}

// ---- Default devices

bool DXRDeviceManager::_updateDefaultDevices()
{
    bool hasChanged = false;
    for (size_t i = 0; i < defaults.size(); ++i) {
        const AudioObjectPropertyAddress address{defaults[i].selector, kAudioObjectPropertyScopeGlobal,
                                                 kAudioObjectPropertyElementMain};
        const std::optional<AudioObjectID> deviceID =
            DXRPropertyAddress::initWithAddress(&address)->uint32ForObjectID(kAudioObjectSystemObject);
        if (!deviceID)
            continue;
        if (*deviceID == kAudioObjectUnknown) { // the slot stays, for when a default is back
            _isDefaultLost[i] = true;
            continue;
        }
        const CXRef<DXRDevice> now = _liveDevice(*deviceID, defaults[i].isInput);
        const CXRef<DXRDevice> before = std::exchange(_defaultDevices[i], now);
        if (!std::exchange(_isDefaultLost[i], false) && now == before)
            continue;
        hasChanged = true;
        for (const CXRef<DXRDevice>& device : {before, now}) {
            if (device)
                _updatedDevices.insert(device);
        }
    }
    _announceDefaultDevices();
    return hasChanged;
}

/// Each value is compared with the announced one even if no slot has changed: what was announced may have
/// been read while another device was the default.
void DXRDeviceManager::_announceDefaultDevices()
{
    for (const auto& [deviceID, info] : _connectedDevicesByID->infos()) {
        for (const bool isInput : bothDirections) {
            if (const CXRef<DXRDevice>& device = info->live(isInput))
                device->kvo()->updateValueForKey("isDefault");
        }
    }
    for (const Default& each : defaults)
        _kvo->updateValueForKeyIfChanged(each.key);
}

void DXRDeviceManager::_defaultDevicesChanged()
{
    bool hasChanged = false;
    lock().execute([&] {
        const DXRReadCheck reads;
        hasChanged = _updateDefaultDevices();
        if (reads.hasFailed())
            _retryAfter(true); // this change is not notified again
    });
    if (hasChanged)
        _updateDeviceList(false);
}
