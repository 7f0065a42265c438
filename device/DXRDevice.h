#pragma once

#include "AudioHardware.h"
#include "CXPlist.h"
#include "DXRDeviceKeeper.h"
#include "DXRDeviceReference.h"
#include "DXRKVOHelper.h"
#include "DXRSynchronization.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class DXRDeviceHardware;
class DXRDeviceOverrides;
struct DXRDeviceValues;

/// One audio device in one direction: the input and the output of a headset are two devices. It keeps a copy
/// of the hardware's values, refreshes it when the hardware reports a change, announces changes to observers
/// (kvo()), and offers a few writes. It outlives its hardware: a disconnected device keeps its last values,
/// and an absent device can be created from an archive. Clients get devices from the device manager, which
/// creates, connects, names and owns them.
///
/// Observable keys: channelCount, manufacturer, model, name, nameWithSource, displayName,
/// displayNameWithSource, preferredStereoChannels, reference, isConnected, isDefault, availableSampleRates,
/// sampleRate, availableSources, source, isMuted, volume, deviceID, deviceUID.
/// Threads:   any. Observers are called on the main thread.
/// Real time: no. Queries hold a lock briefly and do not access the hardware, except isDefault(). Writes wait
///            for the hardware.
/// Fails:     silently. A value that cannot be read is empty, 0, 44100 Hz, volume 1, channels 1 and 2, or
///            false. Writes return whether the hardware accepted them, and false if the device is not
///            connected.
class DXR_EXPORT DXRDevice final : public CXObject {
public:
    // -- Queries

    uint32_t channelCount() const;
    std::string manufacturer() const;
    std::string model() const;
    std::string name() const;
    /// "Name: Source"; only one of the two if the other is empty or the same.
    std::string nameWithSource() const;
    /// The name to show users, different for devices with the same name; "⚠️ Name" if the device is not
    /// connected.
    std::string displayName() const;
    std::string displayNameWithSource() const;
    /// The transport code as four characters, "grup" for an aggregate; empty when unknown.
    std::string transportType() const;
    bool isAggregate() const { return transportType() == "grup"; }
    /// Two channel numbers from 1.
    std::vector<uint32_t> preferredStereoChannels() const;
    CXRef<DXRDeviceReference> reference() const;
    std::string deviceUID() const;
    AudioObjectID deviceID() const; ///< 0 if the device is not connected
    bool isConnected() const;
    /// Whether the device is its direction's default device now. Reads the hardware.
    bool isDefault() const;
    bool isInput() const;
    uint32_t scope() const;                            ///< kAudioObjectPropertyScopeInput or …Output
    std::vector<double> availableSampleRates() const;  ///< Hz, ascending
    double sampleRate() const;                         ///< nominal, Hz
    std::vector<std::string> availableSources() const; ///< in alphabetical order
    std::string source() const;                        ///< empty if there is no source
    /// Whether the device has the control. The overrides "hm" and "hv" take precedence over the hardware.
    bool hasMute() const;
    bool hasVolume() const;
    bool isMuted() const;  ///< false without a control
    double volume() const; ///< scalar 0 to 1; 1 without a control

    // -- Writes

    /// `sampleRate` must equal one of availableSampleRates().
    [[nodiscard]] bool setSampleRate(double sampleRate);
    [[nodiscard]] bool setSource(const std::optional<std::string>& source);
    [[nodiscard]] bool setMuted(bool muted);
    /// `volume`: 0 to 1; a value within a thousandth of 0 or 1 is set to 0 or 1. volume() returns the new
    /// value at once, and the hardware's value from a quarter of a second after the last write on, so that a
    /// slider does not jump in between.
    [[nodiscard]] bool setVolume(double volume);

    // -- Settings, storage, observation

    /// A setting that users have made for this device, in any application (DXRDeviceOverrides); null if
    /// unset.
    CXPlist overrideForKey(const std::string& key) const;
    std::vector<std::string> overrideKeys() const;
    /// A null `value` removes the setting. Waits for the disk. Returns false if the value is too long or
    /// cannot be stored for another reason (DXRDeviceOverrides::setObject).
    bool setOverride(const CXPlist& value, const std::string& key);
    /// Everything needed to list and describe the device while it is absent; initWithArchive() reads it.
    CXPlist archive() const;
    const CXRef<DXRKVOHelper>& kvo() const noexcept { return _kvo; }

    /// "<DXRDevice: address, connected (ID), output, UID (name, source)>".
    std::string description() const override;

private:
    friend class DXRDeviceControl;
    struct Readings;

    static CXRef<DXRDevice> _initWithDeviceID(AudioObjectID deviceID,
                                              const CXRef<DXRDeviceReference>& deviceReference,
                                              const CXRef<DXRDeviceKeeper>& keeper);
    static CXRef<DXRDevice> _initWithArchive(const CXPlist& archive, const CXRef<DXRDeviceKeeper>& keeper);
    static CXRef<DXRDevice> _init(const CXRef<DXRDeviceReference>& reference,
                                  const CXRef<DXRDeviceKeeper>& keeper, DXRDeviceValues values);
    DXRDevice(CXRef<DXRDeviceReference> reference, const CXRef<DXRDeviceKeeper>& keeper,
              DXRDeviceValues values);
    ~DXRDevice() override;

    static std::span<const DXRKVOProperty> _observableProperties() noexcept;

    void _logAdded() const;
    bool _connect(AudioObjectID deviceID, const CXRef<DXRDeviceReference>& deviceReference);
    void _disconnect();
    void _setDeviceReference(const CXRef<DXRDeviceReference>& deviceReference);
    bool _updateDisplayName(std::optional<std::string>& field, const std::optional<std::string>& name,
                            const char* key);
    bool _confirmGenericChannelCounts() const;
    bool _refreshIfIncomplete();
    bool _refreshIfChannelsChanged();

    DXRDeviceHardware _hardware() const;
    bool _updateCachedProperties();
    bool _readAndStore();
    bool _refreshUnnotified();
    uint32_t _countToKeep(uint32_t now) const;
    bool _store(AudioObjectID deviceID, Readings readings);
    enum class VolumeWrite { Refused, Unchanged, Settled };
    void _updateCachedVolumeProperty(double volume);
    void _endVolumeWrite(VolumeWrite result);
    void _overridesChanged();
    bool _flag(const char* overrideKey, const bool& field) const;
    std::string _nameWithSource() const;

    void _updatePropertyListeners();
    static HALStatus __propertyListener(AudioObjectID objectID, uint32_t count,
                                        const AudioObjectPropertyAddress* addresses, void* weakDevice);
    bool _needsRefresh(uint32_t selector);
    bool _hasOtherVolume();
    void _refreshFromHardware();
    void _tellKeeper();
    CXRef<DXRDeviceKeeper> _owner() const;
    static bool _isInKeepersUpdate(const CXObject& device);

    template <class Value, class Live>
    Value _value(const std::optional<Value>& published, const Live& live) const;
    template <class Value, class Live> Value _value(const Value& published, const Live& live) const;
    template <class Live> auto _locked(const Live& live) const;

    const CXRef<DXRKVOHelper> _kvo;
    // The values last announced to observers. Written by the helper and read on the main thread only.
    uint32_t _kvo_channelCount = 0;
    std::optional<std::string> _kvo_manufacturer;
    std::optional<std::string> _kvo_model;
    std::optional<std::string> _kvo_name;
    std::optional<std::string> _kvo_nameWithSource;
    std::optional<std::string> _kvo_displayName;
    std::optional<std::string> _kvo_displayNameWithSource;
    std::optional<std::vector<uint32_t>> _kvo_preferredStereoChannels;
    CXRef<DXRDeviceReference> _kvo_reference;
    bool _kvo_isConnected = false;
    bool _kvo_isDefault = false;
    std::optional<std::vector<double>> _kvo_availableSampleRates;
    double _kvo_sampleRate = 0.0;
    std::optional<std::vector<std::string>> _kvo_availableSources;
    std::optional<std::string> _kvo_source;
    bool _kvo_isMuted = false;
    double _kvo_volume = 0.0;
    uint32_t _kvo_deviceID = 0;
    std::optional<std::string> _kvo_deviceUID;

    // Guards all fields below that are neither const nor atomic; never held during a HAL call.
    const CXRef<DXRRecursiveMutex> _mutex;
    const CXRef<DXRDeviceOverrides> _overrides;
    const std::unique_ptr<DXRDeviceValues> _values;
    // Stored by the owner's thread only, sometimes without the mutex; other threads only load each value on
    // its own.
    std::atomic<AudioObjectID> _deviceID{kAudioObjectUnknown};
    std::optional<std::string> _displayName;
    std::optional<std::string> _displayNameWithSource;
    CXRef<DXRDeviceReference> _reference;
    // Local volume writes in progress: each from before its call of the hardware to the end of its settling
    // time. While there are any, volume notifications and refreshes only set _hasUnreadVolume: what they read
    // results from these writes, or is read at the end.
    uint32_t _volumeSetPending = 0;
    bool _hasUnreadVolume = false;

    AudioObjectID _listenedID = kAudioObjectUnknown; // the device the listener is installed on
    // Refreshes may run concurrently: on the notification thread, on the manager's queue, and after a volume
    // has settled. Each takes a ticket before it reads, and stores nothing if a later ticket has been stored.
    // No change is lost: a change that only the earlier one saw is notified afterwards and causes another
    // refresh.
    uint64_t _lastTicket = 0;
    uint64_t _storedTicket = 0;
    uint64_t _volumeWrites = 0; // local writes so far: an earlier reading does not replace the volume
    std::atomic<bool> _isIncomplete{false}; // some value could not be read; see _refreshIfIncomplete()
    std::atomic<bool> _isMade{false};       // the first reading has succeeded: the keeper may be notified
    const CXWeak<DXRDeviceKeeper> _keeper;
    const bool _hasKeeper;
    CXWeak<DXRDevice> _self; // passed to the listener, which may be called while the device is destroyed
};
