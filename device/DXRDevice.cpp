#include "DXRDevice.h"

#include "CXErrorAdditions.h"
#include "CXJSON.h"
#include "CXPlistAdditions.h"
#include "DXRDebugLog.h"
#include "DXRDeviceArchive.h"
#include "DXRDeviceHardware.h"
#include "DXRDeviceOverrides.h"
#include "DXRDeviceValues.h"
#include "DXRReadCheck.h"
#include "GlobalQueue.h"
#include "QDL.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <system_error>
#include <tuple>

namespace {

constexpr uint64_t settlingNanoseconds = 250'000'000;
constexpr const char* absentMark = "⚠️ ";

constexpr std::array listenedAddresses{
    AudioObjectPropertyAddress{kAudioObjectPropertySelectorWildcard, kAudioObjectPropertyScopeWildcard,
                               kAudioObjectPropertyElementWildcard},
    AudioObjectPropertyAddress{kAudioObjectPropertyName, kAudioObjectPropertyScopeWildcard,
                               kAudioObjectPropertyElementMain},
};

std::string joined(const std::string& first, const char* separator, const std::string& second)
{
    return first.empty() || second.empty() ? first + second : first + separator + second;
}

} // namespace

/// The result of one reading of the hardware.
struct DXRDevice::Readings {
    uint64_t ticket = 0;
    std::optional<uint64_t> volumeWrites; // as it was before the reading; empty if a write was settling
    DXRDeviceValues values;
    bool isIncomplete = false;
};

std::span<const DXRKVOProperty> DXRDevice::_observableProperties() noexcept
{
    using P = DXRKVOProperty;
    using D = DXRDevice;
    static constexpr std::array table{
        P::of<&D::channelCount, &D::_kvo_channelCount>("channelCount"),
        P::of<&D::manufacturer, &D::_kvo_manufacturer>("manufacturer"),
        P::of<&D::model, &D::_kvo_model>("model"),
        P::of<&D::name, &D::_kvo_name>("name"),
        P::of<&D::nameWithSource, &D::_kvo_nameWithSource>("nameWithSource"),
        P::of<&D::displayName, &D::_kvo_displayName>("displayName"),
        P::of<&D::displayNameWithSource, &D::_kvo_displayNameWithSource>("displayNameWithSource"),
        P::of<&D::preferredStereoChannels, &D::_kvo_preferredStereoChannels>("preferredStereoChannels"),
        P::of<&D::reference, &D::_kvo_reference>("reference"),
        P::of<&D::isConnected, &D::_kvo_isConnected>("isConnected"),
        P::of<&D::isDefault, &D::_kvo_isDefault>("isDefault"),
        P::of<&D::availableSampleRates, &D::_kvo_availableSampleRates>("availableSampleRates"),
        P::of<&D::sampleRate, &D::_kvo_sampleRate>("sampleRate"),
        P::of<&D::availableSources, &D::_kvo_availableSources>("availableSources"),
        P::of<&D::source, &D::_kvo_source>("source"),
        P::of<&D::isMuted, &D::_kvo_isMuted>("isMuted"),
        P::of<&D::volume, &D::_kvo_volume>("volume"),
        P::of<&D::deviceID, &D::_kvo_deviceID>("deviceID"),
        P::of<&D::deviceUID, &D::_kvo_deviceUID>("deviceUID"),
    };
    return table;
}

template <class Live> auto DXRDevice::_locked(const Live& live) const
{
    std::optional<std::decay_t<decltype(live())>> value;
    _mutex->execute([&] { value.emplace(live()); });
    return *std::move(value);
}

template <class Value, class Live>
Value DXRDevice::_value(const std::optional<Value>& published, const Live& live) const
{
    return _kvo->isUpdateInProgress() ? published.value_or(Value()) : _locked(live);
}

template <class Value, class Live> Value DXRDevice::_value(const Value& published, const Live& live) const
{
    return _kvo->isUpdateInProgress() ? published : _locked(live);
}

// ---- Creation and identity

CXRef<DXRDevice> DXRDevice::_initWithDeviceID(AudioObjectID deviceID,
                                              const CXRef<DXRDeviceReference>& deviceReference,
                                              const CXRef<DXRDeviceKeeper>& keeper)
{
    if (deviceID == kAudioObjectUnknown || !deviceReference)
        return nullptr;
    CXRef<DXRDevice> device = _init(deviceReference, keeper, {});
    device->_deviceID = deviceID;
    // Listen before reading: a change that the reading misses is then notified.
    device->_updatePropertyListeners();
    device->_isMade = device->_updateCachedProperties();
    if (!device->_isMade) {
        device->_disconnect(); // a running callback may still hold it
        return nullptr;
    }
    device->_logAdded();
    return device;
}

CXRef<DXRDevice> DXRDevice::_initWithArchive(const CXPlist& archive, const CXRef<DXRDeviceKeeper>& keeper)
{
    if (!archive.is_object())
        return nullptr;
    const CXPlist version = vtObjectForKey(archive, "vn", CXPlistKind::Number);
    const CXRef<DXRDeviceReference> reference =
        DXRDeviceReference::initWithString(DXRDeviceArchive(archive).string("ref"));
    DXRDeviceValues values = DXRDeviceValues::ofArchive(archive);
    if (version.is_null() || CXDoubleValue(version) != DXRDeviceArchive::version || !reference ||
        !reference->isInput() || values.channelCount == 0)
        return nullptr;
    CXRef<DXRDevice> device = _init(reference, keeper, std::move(values));
    device->_isMade = true;
    device->_kvo->updateAllValues();
    device->_logAdded();
    return device;
}

DXRDevice::DXRDevice(CXRef<DXRDeviceReference> reference, const CXRef<DXRDeviceKeeper>& keeper,
                     DXRDeviceValues values)
    : _kvo(DXRKVOHelper::initWithObject(*this, _observableProperties(), &_isInKeepersUpdate)),
      _mutex(DXRRecursiveMutex::init()), _overrides(DXRDeviceOverrides::initWithDeviceReference(reference)),
      _values(std::make_unique<DXRDeviceValues>(std::move(values))), _reference(std::move(reference)),
      _keeper(keeper), _hasKeeper(keeper), _self(*this)
{}

/// A device whose overrides are followed. The constructor does not follow them, because another thread might
/// then use the device before it is complete.
CXRef<DXRDevice> DXRDevice::_init(const CXRef<DXRDeviceReference>& reference,
                                  const CXRef<DXRDeviceKeeper>& keeper, DXRDeviceValues values)
{
    CXRef<DXRDevice> device = CXRef<DXRDevice>::adopt(new DXRDevice(reference, keeper, std::move(values)));
    device->_overrides->whenChanged([weak = CXWeak(*device)] {
        if (const CXRef<DXRDevice> self = weak.lock())
            self->_overridesChanged();
    });
    return device;
}

DXRDevice::~DXRDevice()
{
    _deviceID = kAudioObjectUnknown;
    _updatePropertyListeners();
}

void DXRDevice::_logAdded() const
{
    if (DXRDebugLogIsActive())
        DXRDebugLog("Added %s: %s\n", description().c_str(), CXJSONWithPlist(archive()).c_str());
}

bool DXRDevice::_connect(AudioObjectID deviceID, const CXRef<DXRDeviceReference>& deviceReference)
{
    if (!deviceReference)
        return false;
    const bool isUnchanged = _locked([&] {
        const bool isSame = _deviceID == deviceID &&
                            (_reference == deviceReference || _reference->isEqual(deviceReference.get()));
        if (!isSame) {
            _deviceID = deviceID;
            _reference = deviceReference;
        }
        return isSame;
    });
    if (isUnchanged)
        return false;
    _updatePropertyListeners(); // before reading, as in _initWithDeviceID()
    if (!_updateCachedProperties())
        _kvo->updateAllValues(); // old values, but connected
    return true;
}

void DXRDevice::_disconnect()
{
    _deviceID = kAudioObjectUnknown;
    _isIncomplete = false;
    _updatePropertyListeners();
    _kvo->updateValuesForKeys(
        {"displayName", "displayNameWithSource", "isConnected", "isDefault", "deviceID"});
}

void DXRDevice::_setDeviceReference(const CXRef<DXRDeviceReference>& deviceReference)
{
    if (!deviceReference)
        return;
    _mutex->execute([&] { _reference = deviceReference; });
    _kvo->updateValuesForKeys({"deviceUID", "reference"});
}

bool DXRDevice::_updateDisplayName(std::optional<std::string>& field, const std::optional<std::string>& name,
                                   const char* key)
{
    const bool isNew = _locked([&] { return std::exchange(field, name) != name; });
    if (isNew)
        _kvo->updateValueForKey(key);
    return isNew;
}

bool DXRDevice::_confirmGenericChannelCounts() const
{
    const DXRReadCheck reads;
    return !_locked([&] { return _reference->isGeneric(); }) ||
           channelCount() == _hardware().channelCount() || reads.hasFailed();
}

// ---- Queries

uint32_t DXRDevice::channelCount() const
{
    return _value(_kvo_channelCount, [&] { return _values->channelCount; });
}

std::string DXRDevice::manufacturer() const
{
    return _value(_kvo_manufacturer, [&] { return _values->manufacturer; });
}

std::string DXRDevice::model() const
{
    return _value(_kvo_model, [&] { return _values->model; });
}

std::string DXRDevice::name() const
{
    return _value(_kvo_name, [&] { return _values->name; });
}

std::string DXRDevice::nameWithSource() const
{
    return _value(_kvo_nameWithSource, [&] { return _nameWithSource(); });
}

std::string DXRDevice::_nameWithSource() const
{
    const auto& [name, source] = std::tie(_values->name, _values->source);
    return name == source ? name : joined(name, ": ", source);
}

std::string DXRDevice::displayName() const
{
    return _value(_kvo_displayName, [&] {
        return _deviceID != 0 ? _displayName.value_or(_values->name) : absentMark + _values->name;
    });
}

std::string DXRDevice::displayNameWithSource() const
{
    return _value(_kvo_displayNameWithSource, [&] {
        return _deviceID != 0 ? _displayNameWithSource.value_or(_nameWithSource())
                              : absentMark + _nameWithSource();
    });
}

std::string DXRDevice::transportType() const
{
    return _locked([&] { return _values->transportType; });
}

std::vector<uint32_t> DXRDevice::preferredStereoChannels() const
{
    return _value(_kvo_preferredStereoChannels, [&] { return _values->preferredStereoChannels; });
}

CXRef<DXRDeviceReference> DXRDevice::reference() const
{
    return _value(_kvo_reference, [&] { return _reference; });
}

std::string DXRDevice::deviceUID() const
{
    return _value(_kvo_deviceUID, [&] { return _reference->deviceUID().value_or(""); });
}

AudioObjectID DXRDevice::deviceID() const
{
    return _kvo->isUpdateInProgress() ? _kvo_deviceID : _deviceID.load();
}

bool DXRDevice::isConnected() const
{
    return _kvo->isUpdateInProgress() ? _kvo_isConnected : _deviceID != kAudioObjectUnknown;
}

bool DXRDevice::isDefault() const
{
    if (_kvo->isUpdateInProgress())
        return _kvo_isDefault;
    const AudioObjectID deviceID = _deviceID;
    return deviceID != kAudioObjectUnknown && deviceID == (isInput() ? QDLAudioDeviceDefaultInputDeviceID()
                                                                     : QDLAudioDeviceDefaultOutputDeviceID());
}

bool DXRDevice::isInput() const
{
    return _locked([&] { return _reference->isInput().value_or(false); });
}

uint32_t DXRDevice::scope() const
{
    return isInput() ? kAudioObjectPropertyScopeInput : kAudioObjectPropertyScopeOutput;
}

std::vector<double> DXRDevice::availableSampleRates() const
{
    return _value(_kvo_availableSampleRates, [&] { return _values->availableSampleRates; });
}

double DXRDevice::sampleRate() const
{
    return _value(_kvo_sampleRate, [&] { return _values->sampleRate; });
}

std::vector<std::string> DXRDevice::availableSources() const
{
    return _value(_kvo_availableSources, [&] { return _values->availableSources; });
}

std::string DXRDevice::source() const
{
    return _value(_kvo_source, [&] { return _values->source; });
}

bool DXRDevice::_flag(const char* overrideKey, const bool& field) const
{
    const CXPlist chosen = _overrides->boolForKey(overrideKey);
    return chosen.is_null() ? _locked([&] { return field; }) : CXDoubleValue(chosen) != 0.0;
}

bool DXRDevice::hasMute() const
{
    return _flag("hm", _values->hasMute);
}

bool DXRDevice::hasVolume() const
{
    return _flag("hv", _values->hasVolume);
}

bool DXRDevice::isMuted() const
{
    return _kvo->isUpdateInProgress() ? _kvo_isMuted : hasMute() && _locked([&] { return _values->isMuted; });
}

double DXRDevice::volume() const
{
    if (_kvo->isUpdateInProgress())
        return _kvo_volume;
    return hasVolume() ? _locked([&] { return _values->volume; }) : 1.0;
}

std::string DXRDevice::description() const
{
    const AudioObjectID deviceID = _deviceID;
    char start[64];
    std::snprintf(start, sizeof start, "<DXRDevice: %p, ", static_cast<const void*>(this));
    std::string text = start;
    if (deviceID != kAudioObjectUnknown)
        text += "connected (" + std::to_string(deviceID) + "), ";
    const std::string names = _locked([&] { return joined(_values->name, ", ", _values->source); });
    return text + (isInput() ? "input, " : "output, ") +
           _locked([&] { return _reference->deviceUID().value_or(""); }) +
           (names.empty() ? "" : " (" + names + ")") + ">";
}

// ---- Writes

bool DXRDevice::setSampleRate(double sampleRate)
{
    if (_deviceID == kAudioObjectUnknown || !_locked([&] {
            return std::ranges::find(_values->availableSampleRates, sampleRate) !=
                   _values->availableSampleRates.end();
        }))
        return false;
    return _hardware().setSampleRate(sampleRate);
}

bool DXRDevice::setSource(const std::optional<std::string>& source)
{
    if (_deviceID == kAudioObjectUnknown || !source)
        return false;
    const std::map<std::string, uint32_t> sources = _hardware().sources();
    const auto found = sources.find(*source);
    return found != sources.end() && _hardware().setSource(found->second);
}

bool DXRDevice::setMuted(bool muted)
{
    return _deviceID != kAudioObjectUnknown && _hardware().setMuted(muted);
}

bool DXRDevice::setVolume(double volume)
{
    if (_deviceID == kAudioObjectUnknown || std::isnan(volume))
        return false;
    if (volume < double{0.001F})
        volume = 0.0;
    else if (volume > double{0.999F})
        volume = 1.0;
    // Before the write, because its notification may arrive before it returns.
    _mutex->execute([&] { ++_volumeSetPending; });
    const DXRDeviceHardware hardware = _hardware();
    bool isSet = hardware.setVolume(volume, kAudioObjectPropertyElementMain);
    if (!isSet)
        for (const uint32_t channel : preferredStereoChannels())
            isSet |= hardware.setVolume(volume, channel);
    if (isSet)
        _updateCachedVolumeProperty(volume);
    else
        _endVolumeWrite(VolumeWrite::Refused);
    return isSet;
}

void DXRDevice::_updateCachedVolumeProperty(double volume)
{
    const bool isThere = _hardware().isPresent();
    const bool isNew = _locked([&] {
        const bool differs =
            isThere && _deviceID != kAudioObjectUnknown && _values->hasVolume && _values->volume != volume;
        if (differs) {
            _values->volume = volume;
            ++_volumeWrites;
        }
        return differs;
    });
    if (!isNew)
        return _endVolumeWrite(VolumeWrite::Unchanged);
    try {
        dxr::GlobalQueue::highPriority().after(settlingNanoseconds, [weak = CXWeak(*this)] {
            if (const CXRef<DXRDevice> self = weak.lock())
                self->_endVolumeWrite(VolumeWrite::Settled);
        });
    } catch (const std::system_error&) { // no thread can be created
        _endVolumeWrite(VolumeWrite::Settled);
    }
    _kvo->updateValueForKey("volume");
}

void DXRDevice::_endVolumeWrite(VolumeWrite result)
{
    const bool isReadNow = _locked([&] {
        if (--_volumeSetPending != 0)
            return false;
        return std::exchange(_hasUnreadVolume, false) || result == VolumeWrite::Settled;
    });
    if (isReadNow)
        _refreshUnnotified();
}

// ---- Settings and storage

CXPlist DXRDevice::overrideForKey(const std::string& key) const
{
    return _overrides->objectForKey(key);
}

std::vector<std::string> DXRDevice::overrideKeys() const
{
    return _overrides->keys();
}

bool DXRDevice::setOverride(const CXPlist& value, const std::string& key)
{
    const bool isSet = _overrides->setObject(value, key);
    _overridesChanged();
    return isSet;
}

void DXRDevice::_overridesChanged()
{
    _kvo->updateValuesForKeys({"isMuted", "volume"});
}

CXPlist DXRDevice::archive() const
{
    return _locked([&] {
        CXPlist archive{{"vn", DXRDeviceArchive::version}, {"ref", _reference->string()}};
        _values->addTo(archive);
        return archive;
    });
}

// ---- Refreshing

DXRDeviceHardware DXRDevice::_hardware() const
{
    return DXRDeviceHardware(_deviceID, isInput());
}

bool DXRDevice::_updateCachedProperties()
{
    const bool isStored = _readAndStore();
    if (isStored)
        _kvo->updateAllValues();
    else if (_deviceID != kAudioObjectUnknown)
        _isIncomplete = true;
    return isStored;
}

bool DXRDevice::_readAndStore()
{
    const DXRDeviceHardware hardware = _hardware();
    const DXRReadCheck reads;
    Readings readings;
    _mutex->execute([&] {
        readings.ticket = ++_lastTicket;
        if (_volumeSetPending == 0)
            readings.volumeWrites = _volumeWrites;
        else
            _hasUnreadVolume = true;
    });
    if (hardware.deviceID() == kAudioObjectUnknown || !hardware.isPresent())
        return false;
    const uint32_t channelCount = hardware.channelCount();
    if (channelCount == 0)
        return false;
    readings.values =
        DXRDeviceValues::ofHardware(hardware, _locked([&] { return _countToKeep(channelCount); }));
    if (!hardware.isPresent()) // it was removed during the reading
        return false;
    readings.isIncomplete = reads.hasFailed();
    return _store(hardware.deviceID(), std::move(readings));
}

/// A generic reference includes the channel count: a device with another count is a different device, so its
/// count is kept. A count that differs from the reference's came from an archive, and is replaced. The mutex is
/// held.
uint32_t DXRDevice::_countToKeep(uint32_t now) const
{
    const bool isGeneric = _values->channelCount != 0 && _reference->isGeneric();
    return isGeneric && _reference->channelCount(isInput()) != now ? _values->channelCount : now;
}

bool DXRDevice::_store(AudioObjectID deviceID, Readings readings)
{
    return _locked([&] {
        if (_deviceID != deviceID)
            return false; // the device was disconnected or reconnected during the reading
        if (readings.ticket < _storedTicket)
            return true;
        _storedTicket = readings.ticket;
        if (readings.isIncomplete || readings.ticket == _lastTicket) // a later reading may have failed
            _isIncomplete = readings.isIncomplete;
        DXRDeviceValues& values = readings.values;
        if (_volumeSetPending != 0)
            _hasUnreadVolume = true;
        // The hardware's volume is a float: if it equals ours as a float, keep ours, the exact value written.
        if (_volumeSetPending != 0 || readings.volumeWrites != _volumeWrites ||
            static_cast<float>(values.volume) == static_cast<float>(_values->volume))
            values.volume = _values->volume;
        *_values = std::move(values);
        return true;
    });
}

/// Reads the hardware when it has not notified of a change. Reports failed reads to the keeper, which repeats
/// them, and any change, because its notification may find the new value stored already.
bool DXRDevice::_refreshUnnotified()
{
    const DXRDeviceValues before = _locked([&] { return *_values; });
    const bool isStored = _updateCachedProperties();
    if (_isIncomplete || _locked([&] { return *_values != before; }))
        _tellKeeper();
    return isStored;
}

bool DXRDevice::_refreshIfIncomplete()
{
    if (!_isIncomplete || _deviceID == kAudioObjectUnknown)
        return false;
    _updateCachedProperties();
    return true;
}

bool DXRDevice::_refreshIfChannelsChanged()
{
    const uint32_t there = _hardware().channelCount();
    return there != 0 && there != channelCount() && _refreshUnnotified();
}

// ---- Following the hardware

void DXRDevice::_updatePropertyListeners()
{
    AudioObjectID added = kAudioObjectUnknown;
    AudioObjectID removed = kAudioObjectUnknown;
    _mutex->execute([&] {
        const AudioObjectID wanted = _deviceID;
        if (_listenedID == wanted)
            return;
        removed = _listenedID;
        added = wanted;
        _listenedID = wanted;
    });
    for (const AudioObjectPropertyAddress& address : listenedAddresses) {
        if (removed != kAudioObjectUnknown)
            AudioObjectRemovePropertyListener(removed, &address, __propertyListener, &_self);
        if (added != kAudioObjectUnknown)
            AudioObjectAddPropertyListener(added, &address, __propertyListener, &_self);
    }
}

HALStatus DXRDevice::__propertyListener(AudioObjectID /*objectID*/, uint32_t count,
                                        const AudioObjectPropertyAddress* addresses, void* weakDevice)
{
    const CXRef<DXRDevice> self = static_cast<const CXWeak<DXRDevice>*>(weakDevice)->lock();
    if (!self)
        return kAudioHardwareNoError;
    for (uint32_t i = 0; i < count; ++i) {
        if (self->_needsRefresh(addresses[i].selector)) {
            self->_refreshFromHardware(); // reads everything, not only what has changed
            break;
        }
    }
    return kAudioHardwareNoError;
}

bool DXRDevice::_needsRefresh(uint32_t selector)
{
    constexpr uint32_t modelName = CXFourCharCode("lmod");
    const DXRReadCheck reads;
    switch (selector) {
    case kAudioDevicePropertyPreferredChannelsForStereo:
    case kAudioObjectPropertyManufacturer:
    case modelName:
    case kAudioObjectPropertyName:
    case kAudioStreamPropertyVirtualFormat:
    case kAudioDevicePropertyStreamConfiguration:
    case kAudioDevicePropertyDataSource:
        return true;
    case kAudioDevicePropertyMute:
        if (_hardware().isMuted() !=
            _locked([&] { return _values->hasMute ? std::optional(_values->isMuted) : std::nullopt; }))
            return true;
        break;
    case kAudioDevicePropertyVolumeDecibels:
    case kAudioDevicePropertyVolumeScalar:
        if (_hasOtherVolume())
            return true;
        break;
    default:
        return false;
    }
    return reads.hasFailed(); // if a read failed, the value may have changed
}

bool DXRDevice::_hasOtherVolume()
{
    std::optional<double> known;
    const bool isSettled = _locked([&] {
        _hasUnreadVolume = _volumeSetPending != 0;
        if (_values->hasVolume)
            known = _values->volume;
        return !_hasUnreadVolume;
    });
    if (!isSettled)
        return false;
    const std::optional<double> now = _hardware().volume(preferredStereoChannels());
    // A control may have appeared or disappeared. The hardware's volume is a float.
    return now.has_value() != known.has_value() ||
           static_cast<float>(now.value_or(1.0)) != static_cast<float>(known.value_or(1.0));
}

void DXRDevice::_refreshFromHardware()
{
    _updateCachedProperties();
    _tellKeeper();
}

CXRef<DXRDeviceKeeper> DXRDevice::_owner() const
{
    return _hasKeeper ? _keeper.lock() : DXRDeviceKeeper::shared();
}

bool DXRDevice::_isInKeepersUpdate(const CXObject& device)
{
    const CXRef<DXRDeviceKeeper> keeper = static_cast<const DXRDevice&>(device)._owner();
    return keeper && keeper->updateQueue().isCurrent();
}

void DXRDevice::_tellKeeper()
{
    if (!_isMade)
        return; // the creator reads the values afterwards
    if (const CXRef<DXRDeviceKeeper> keeper = _owner())
        keeper->updateQueue().async([keeper, self = CXRef(this)] { keeper->deviceWasUpdated(self); });
}
