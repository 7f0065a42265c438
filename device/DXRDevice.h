#pragma once

#include "AudioHardware.h"
#include "CXPlist.h"
#include "DXRDeviceKeeper.h"
#include "DXRDeviceReference.h"
#include "DXRKVOHelper.h"
#include "DXRSynchronization.h"

#include <atomic>
#include <optional>
#include <string>
#include <vector>

class DXRDeviceArchive;
class DXRDeviceHardware;
class DXRDeviceOverrides;

/// One audio device in one direction: the input side of a headset and its output side are two. It keeps what the
/// hardware says, renews that when the hardware reports a change, tells observers (kvo()), and carries out the few
/// writes there are. It outlives its hardware: a disconnected device keeps its last values, and one that was never
/// here can be made from an archive. The device manager makes, connects, names and keeps devices; clients get theirs
/// from it.
///
/// Observable keys: channelCount, manufacturer, model, name, nameWithSource, displayName, displayNameWithSource,
/// preferredStereoChannels, reference, isConnected, isDefault, availableSampleRates, sampleRate, availableSources,
/// source, isMuted, volume, deviceID, deviceUID.
/// Threads:   any. Observers are called on the main thread. What the manager calls (connect to updateDisplayName…),
///            on one thread at a time.
/// Real time: no. Queries take a lock for a moment and ask no hardware, but for isDefault(); writes wait for it.
/// Fails:     quietly: what the hardware does not say is empty, 0, 44100 Hz, volume 1, channels 1 and 2, or false;
///            writes answer whether the hardware accepted them, and false for a device that is not connected.
class DXR_EXPORT DXRDevice final : public CXObject {
public:
    // -- Creation and identity, for the manager

    /// The device that is there under this ID, in the direction of the reference. Null when it does not answer, has
    /// no channels in that direction, or the reference has none. `keeper` hears of its changes; without one the
    /// shared keeper does.
    static CXRef<DXRDevice> initWithDeviceID(AudioObjectID deviceID,
                                             const CXRef<DXRDeviceReference>& deviceReference,
                                             const CXRef<DXRDeviceKeeper>& keeper = nullptr);
    /// A device that is not connected, as archive() once described it. Null for another version than 1, without a
    /// reference that has a direction, or without channels; whatever else is missing or of the wrong kind is as for
    /// hardware that does not say.
    static CXRef<DXRDevice> initWithArchive(const CXPlist& archive,
                                            const CXRef<DXRDeviceKeeper>& keeper = nullptr);
    /// Makes this hardware device its own and reads it anew; nothing happens when it is already, by an equal
    /// reference.
    void connect(AudioObjectID deviceID, const CXRef<DXRDeviceReference>& deviceReference);
    /// Lets the hardware go, and keeps the values.
    void disconnect();
    void setDeviceReference(const CXRef<DXRDeviceReference>& deviceReference);
    /// The name to show instead of the device's own, or none; whether it is another than before.
    bool updateDisplayName(const std::optional<std::string>& displayName);
    bool updateDisplayNameWithSource(const std::optional<std::string>& displayNameWithSource);
    /// Whether a device that is known by its description still has as many channels as that says.
    bool confirmGenericChannelCounts() const;
    /// Reads the hardware once more when the last time something could not be read; whether it did.
    bool refreshIfIncomplete();
    bool isIncomplete() const noexcept { return _isIncomplete.load(); }
    /// For whoever is about to use the channels and cannot wait for the news: reads the hardware anew when it has
    /// another number of them than channelCount(); whether it did.
    bool refreshIfChannelsChanged();

    // -- Queries

    uint32_t channelCount() const;
    std::string manufacturer() const;
    std::string model() const;
    std::string name() const;
    /// "Name: Source"; the one of them there is, or only once what both are.
    std::string nameWithSource() const;
    /// The name to show users, told from those of like devices; of a device that is not connected "⚠️ Name".
    std::string displayName() const;
    std::string displayNameWithSource() const;
    /// The transport code as four characters, "grup" for an aggregate; empty when unknown.
    std::string transportType() const;
    bool isAggregate() const { return transportType() == "grup"; }
    /// Two channel numbers from 1.
    std::vector<uint32_t> preferredStereoChannels() const;
    CXRef<DXRDeviceReference> reference() const;
    std::string deviceUID() const;
    AudioObjectID deviceID() const; ///< 0 when it is not connected
    bool isConnected() const;
    /// Whether it is its direction's default device now. Asks the hardware.
    bool isDefault() const;
    bool isInput() const;
    uint32_t scope() const;                            ///< kAudioObjectPropertyScopeInput or …Output
    std::vector<double> availableSampleRates() const;  ///< Hz, ascending
    double sampleRate() const;                         ///< nominal, Hz
    std::vector<std::string> availableSources() const; ///< in alphabetical order
    std::string source() const;                        ///< empty when there is none
    /// Whether there is a control; the overrides "hm" and "hv" decide before the hardware does.
    bool hasMute() const;
    bool hasVolume() const;
    bool isMuted() const;  ///< false without a control
    double volume() const; ///< scalar 0 to 1; 1 without a control

    // -- Writes

    /// One of availableSampleRates(), exactly.
    [[nodiscard]] bool setSampleRate(double sampleRate);
    [[nodiscard]] bool setSource(const std::optional<std::string>& source);
    [[nodiscard]] bool setMuted(bool muted);
    /// 0 to 1; within a thousandth of an end it is the end. volume() answers the new value at once, and what the
    /// hardware makes of it a quarter of a second after the last such write: a slider does not jump meanwhile.
    [[nodiscard]] bool setVolume(double volume);

    // -- Settings, storage, observation

    /// What users have set for this device, in any application (DXRDeviceOverrides); null when nothing.
    CXPlist overrideForKey(const std::string& key) const;
    std::vector<std::string> overrideKeys() const;
    /// Null removes it. Waits for the disk.
    void setOverride(const CXPlist& value, const std::string& key);
    /// All that is needed to list and describe the device while it is absent; initWithArchive() reads it.
    CXPlist archive() const;
    const CXRef<DXRKVOHelper>& kvo() const noexcept { return _kvo; }

    /// "<DXRDevice: address, connected (ID), output, UID (name, source)>".
    std::string description() const override;

private:
    struct Readings;

    DXRDevice(CXRef<DXRDeviceReference> reference, const CXRef<DXRDeviceKeeper>& keeper);
    ~DXRDevice() override;

    static std::span<const DXRKVOProperty> _observableProperties() noexcept;

    void _logAdded() const;
    void _load(const DXRDeviceArchive& archive);
    DXRDeviceHardware _hardware() const;
    bool _updateCachedProperties();
    bool _readAndStore();
    static void _read(const DXRDeviceHardware& hardware, Readings& readings);
    bool _store(AudioObjectID deviceID, Readings readings);
    void _updateCachedVolumeProperty(double volume);
    void _settleVolume();
    bool _updateDisplayName(std::optional<std::string>& field, const std::optional<std::string>& name,
                            const char* key);
    bool _flag(const char* overrideKey, const bool& field) const;
    std::string _nameWithSource() const;

    void _updatePropertyListeners();
    static HALStatus __propertyListener(AudioObjectID objectID, uint32_t count,
                                        const AudioObjectPropertyAddress* addresses, void* weakDevice);
    bool _needsRefresh(uint32_t selector) const;
    void _refreshFromHardware();
    void _tellKeeper();

    template <class Value, class Live>
    Value _value(const std::optional<Value>& published, const Live& live) const;
    template <class Value, class Live> Value _value(const Value& published, const Live& live) const;
    template <class Live> auto _locked(const Live& live) const;

    const CXRef<DXRKVOHelper> _kvo;
    // What observers were told last. Written by the helper, on the main thread, and read there only.
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

    const CXRef<DXRRecursiveMutex>
        _mutex; // of all below that is neither const nor atomic; never held in a HAL call
    const CXRef<DXRDeviceOverrides> _overrides;
    uint32_t _channelCount = 0;
    // Stored by the manager's thread alone, sometimes without the mutex; a look at it is enough for everyone else.
    std::atomic<AudioObjectID> _deviceID{kAudioObjectUnknown};
    std::string _manufacturer;
    std::string _model;
    std::string _name;
    std::optional<std::string> _displayName;
    std::optional<std::string> _displayNameWithSource;
    std::vector<uint32_t> _preferredStereoChannels{1, 2};
    CXRef<DXRDeviceReference> _reference;
    std::string _transportType;
    std::vector<double> _availableSampleRates;
    double _sampleRate = 44100.0;
    std::vector<std::string> _availableSources;
    std::string _source;
    bool _hasMute = false;
    bool _muted = false;
    bool _hasVolume = false;
    double _volume = 1.0;
    uint32_t _volumeSetPending = 0; // local volume writes in their settling time
    bool _listening = false;

    AudioObjectID _listenedID = kAudioObjectUnknown; // what the listener is installed on while _listening
    // Refreshes run side by side: on the notification thread, the manager's queue, and when a volume has settled.
    // Each takes a ticket before it reads; one that began earlier than what is stored already stores nothing, since
    // whatever it saw and the later one did not has been announced since and brings another refresh.
    uint64_t _lastTicket = 0;
    uint64_t _storedTicket = 0;
    uint64_t _volumeWrites = 0; // local ones so far: a reading from before one does not replace it
    std::atomic<bool> _isIncomplete{false};
    const CXWeak<DXRDeviceKeeper> _keeper;
    const bool _hasKeeper;
    CXWeak<DXRDevice> _self; // what the listener gets: a callback may be under way when the device ends
};
