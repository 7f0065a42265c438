#pragma once

#include "AudioHardware.h"
#include "DXRBasicStream.h"
#include "DXRRangedStream.h"
#include "DXRValueRange.h"

#include <optional>
#include <string>
#include <vector>

class DXRPropertyListener;

/// The address of a property of hardware objects, with functions to read and write it as values. The
/// factories at the end list every property that the library uses; the type of each value is documented
/// beside its code in AudioHardware.h.
/// Threads:   immutable; any.
/// Real time: the plain queries.
/// Fails:     silently. For object 0, an object that does not exist or does not have the property, or a value
///            of another size, reading returns an empty result and writing returns false.
class DXR_EXPORT DXRPropertyAddress final : public CXObject {
public:
    using Ref = CXRef<DXRPropertyAddress>;
    /// Called after a change of the property, with the target passed when the listener was created.
    using ListenerBlock = CXBlock<void(const CXRef<CXObject>& target, const Ref& address)>;

    /// All fields 0.
    static Ref init() { return initWithAddress(nullptr); }
    /// A copy of `address`; all fields 0 for a null pointer.
    static Ref initWithAddress(const AudioObjectPropertyAddress* address);
    static Ref initWithSelector(uint32_t selector, uint32_t scope = kAudioObjectPropertyScopeGlobal,
                                uint32_t element = kAudioObjectPropertyElementMain);
    /// Returns the same object, because it is immutable.
    Ref copy() const { return Ref(const_cast<DXRPropertyAddress*>(this)); }

    const AudioObjectPropertyAddress* address() const noexcept { return &_address; }
    uint32_t selector() const noexcept { return _address.selector; }
    uint32_t scope() const noexcept { return _address.scope; }
    uint32_t element() const noexcept { return _address.element; }
    bool isGlobal() const noexcept { return scope() == kAudioObjectPropertyScopeGlobal; }
    bool isInput() const noexcept { return scope() == kAudioObjectPropertyScopeInput; }
    bool isOutput() const noexcept { return scope() == kAudioObjectPropertyScopeOutput; }

    /// "selector:scope:element", for example "volm:outp:0".
    std::string description() const override;
    /// True for another address with the same fields, or a CXValue string equal to the description.
    bool isEqual(const CXObject* other) const override;
    size_t hash() const override;

    /// A listener, not yet started, that calls `block` with `target` as long as the target exists. The block
    /// is called on the hardware's notification thread, even if a queue is given. The listener keeps neither
    /// the target nor this address alive: the caller must.
    CXRef<DXRPropertyListener> listenerWithObjectID(AudioObjectID objectID,
                                                    const CXRef<dxr::WorkQueue>& queue,
                                                    const CXRef<CXObject>& target,
                                                    const ListenerBlock& block) const;

    // -- Reading. The first four functions store a value only if they return true.

    /// The value's present size in bytes. `size` may be null.
    bool getSize(uint32_t* size, AudioObjectID objectID) const;
    bool getUInt32(uint32_t* value, AudioObjectID objectID) const;
    bool getFloat(float* value, AudioObjectID objectID) const;
    bool getDouble(double* value, AudioObjectID objectID) const;
    std::optional<uint32_t> uint32ForObjectID(AudioObjectID objectID) const;
    std::optional<float> floatForObjectID(AudioObjectID objectID) const;
    std::optional<double> doubleForObjectID(AudioObjectID objectID) const;
    /// A string or dictionary, as a CXValue.
    CXRef<CXObject> objectForObjectID(AudioObjectID objectID) const;
    /// The hardware's translation of the `size` bytes at `data`, for example of an ID to a name.
    CXRef<CXObject> objectForObjectID(AudioObjectID objectID, const void* data, uint32_t size) const;
    /// The bytes of the value. If the value grows while it is read, the read is tried three times.
    std::optional<std::vector<std::byte>> dataForObjectID(AudioObjectID objectID) const;
    // Lists contain whole items only, and are empty if they cannot be read.
    std::vector<uint32_t> uint32ArrayForObjectID(AudioObjectID objectID) const;
    CXRef<DXRValueRange> valueRangeForObjectID(AudioObjectID objectID) const;
    std::vector<CXRef<DXRValueRange>> valueRangeArrayForObjectID(AudioObjectID objectID) const;
    CXRef<DXRBasicStream> basicStreamForObjectID(AudioObjectID objectID) const;
    std::vector<CXRef<DXRBasicStream>> basicStreamArrayForObjectID(AudioObjectID objectID) const;
    CXRef<DXRRangedStream> rangedStreamForObjectID(AudioObjectID objectID) const;
    std::vector<CXRef<DXRRangedStream>> rangedStreamArrayForObjectID(AudioObjectID objectID) const;

    // -- Writing. Returns true if the hardware accepted the value; it may take effect a little later.

    bool setUInt32(uint32_t value, AudioObjectID objectID) const;
    bool setFloat(float value, AudioObjectID objectID) const;
    bool setDouble(double value, AudioObjectID objectID) const;

    // -- The catalogue

    static Ref aggregateActiveSubDeviceList() { return initWithSelector(CXFourCharCode("agrp")); }
    static Ref aggregateComposition() { return initWithSelector(CXFourCharCode("acom")); }
    static Ref booleanControlValue() { return initWithSelector(CXFourCharCode("bcvl")); }
    static Ref controlElement() { return initWithSelector(CXFourCharCode("celm")); }
    static Ref controlScope() { return initWithSelector(CXFourCharCode("cscp")); }
    static Ref deviceBufferFrameSize() { return initWithSelector(CXFourCharCode("fsiz")); }
    static Ref deviceBufferFrameSizeRange() { return initWithSelector(CXFourCharCode("fsz#")); }
    static Ref deviceCanBeDefaultDevice(uint32_t scope)
    {
        return initWithSelector(CXFourCharCode("dflt"), scope);
    }
    static Ref deviceCanBeSoundEffectsDevice()
    {
        return initWithSelector(CXFourCharCode("sflt"), kAudioObjectPropertyScopeOutput);
    }
    static Ref deviceClockDomain() { return initWithSelector(CXFourCharCode("clkd")); }
    static Ref deviceConfigurationApplication() { return initWithSelector(CXFourCharCode("capp")); }
    static Ref deviceControls() { return initWithSelector(CXFourCharCode("ctrl")); }
    static Ref deviceDataSource(uint32_t scope) { return initWithSelector(CXFourCharCode("ssrc"), scope); }
    static Ref deviceAvailableDataSources(uint32_t scope)
    {
        return initWithSelector(CXFourCharCode("ssc#"), scope);
    }
    static Ref deviceDataSourceName(uint32_t scope)
    {
        return initWithSelector(CXFourCharCode("lscn"), scope);
    }
    static Ref deviceDeviceUID() { return initWithSelector(CXFourCharCode("uid ")); }
    static Ref deviceIcon() { return initWithSelector(CXFourCharCode("icon")); }
    static Ref deviceIsHidden() { return initWithSelector(CXFourCharCode("hidn")); }
    static Ref deviceIsRunning() { return initWithSelector(CXFourCharCode("goin")); }
    static Ref deviceLatency(uint32_t scope) { return initWithSelector(CXFourCharCode("ltnc"), scope); }
    static Ref deviceModel() { return initWithSelector(CXFourCharCode("muid")); }
    static Ref deviceMute(uint32_t scope, uint32_t element)
    {
        return initWithSelector(CXFourCharCode("mute"), scope, element);
    }
    static Ref devicePreferredChannelLayout(uint32_t scope)
    {
        return initWithSelector(CXFourCharCode("srnd"), scope);
    }
    static Ref devicePreferredStereoChannels(uint32_t scope)
    {
        return initWithSelector(CXFourCharCode("dch2"), scope);
    }
    static Ref deviceRelatedDevices() { return initWithSelector(CXFourCharCode("akin")); }
    static Ref deviceSafetyOffset(uint32_t scope) { return initWithSelector(CXFourCharCode("saft"), scope); }
    static Ref deviceSampleRate() { return initWithSelector(CXFourCharCode("nsrt")); }
    static Ref deviceSampleRate(uint32_t scope) { return initWithSelector(CXFourCharCode("nsrt"), scope); }
    static Ref deviceActualSampleRate() { return initWithSelector(CXFourCharCode("asrt")); }
    static Ref deviceAvailableSampleRates() { return initWithSelector(CXFourCharCode("nsr#")); }
    static Ref deviceStereoPan(uint32_t scope, uint32_t element)
    {
        return initWithSelector(CXFourCharCode("span"), scope, element);
    }
    static Ref deviceStreamConfiguration(uint32_t scope)
    {
        return initWithSelector(CXFourCharCode("slay"), scope);
    }
    static Ref deviceStreams(uint32_t scope) { return initWithSelector(CXFourCharCode("stm#"), scope); }
    static Ref deviceTapEnabled()
    {
        return initWithSelector(CXFourCharCode("tapd"), kAudioObjectPropertyScopeOutput);
    }
    static Ref deviceTransportType() { return initWithSelector(CXFourCharCode("tran")); }
    static Ref deviceTransportType(uint32_t scope) { return initWithSelector(CXFourCharCode("tran"), scope); }
    static Ref deviceVolumeDecibels(uint32_t scope, uint32_t element)
    {
        return initWithSelector(CXFourCharCode("vold"), scope, element);
    }
    static Ref deviceVolumeRangeDecibels(uint32_t scope, uint32_t element)
    {
        return initWithSelector(CXFourCharCode("vdb#"), scope, element);
    }
    static Ref deviceVolumeScalar(uint32_t scope, uint32_t element)
    {
        return initWithSelector(CXFourCharCode("volm"), scope, element);
    }
    static Ref hardwareDefaultInputDevice() { return initWithSelector(CXFourCharCode("dIn ")); }
    static Ref hardwareDefaultOutputDevice() { return initWithSelector(CXFourCharCode("dOut")); }
    static Ref hardwareSoundEffectsDevice() { return initWithSelector(CXFourCharCode("sOut")); }
    static Ref levelControlDecibelRange() { return initWithSelector(CXFourCharCode("lcdr")); }
    static Ref levelControlDecibelValue() { return initWithSelector(CXFourCharCode("lcdv")); }
    static Ref levelControlScalarValue() { return initWithSelector(CXFourCharCode("lcsv")); }
    static Ref objectBaseClass() { return initWithSelector(CXFourCharCode("bcls")); }
    static Ref objectClass() { return initWithSelector(CXFourCharCode("clas")); }
    static Ref objectControlList(uint32_t scope) { return initWithSelector(CXFourCharCode("ctrl"), scope); }
    static Ref objectCreator() { return initWithSelector(CXFourCharCode("oplg")); }
    static Ref objectElementCategoryName() { return initWithSelector(CXFourCharCode("lccn")); }
    static Ref objectElementName(uint32_t scope, uint32_t element)
    {
        return initWithSelector(CXFourCharCode("lchn"), scope, element);
    }
    static Ref objectElementNumberName() { return initWithSelector(CXFourCharCode("lcnn")); }
    static Ref objectListenerAdded() { return initWithSelector(CXFourCharCode("lisa")); }
    static Ref objectListenerRemoved() { return initWithSelector(CXFourCharCode("lisr")); }
    static Ref objectManufacturer() { return initWithSelector(CXFourCharCode("lmak")); }
    static Ref objectModel() { return initWithSelector(CXFourCharCode("lmod")); }
    static Ref objectName() { return initWithSelector(CXFourCharCode("lnam")); }
    static Ref objectOwner() { return initWithSelector(CXFourCharCode("stdv")); }
    static Ref objectOwnedObjects() { return initWithSelector(CXFourCharCode("ownd")); }
    static Ref plugInBoxList() { return initWithSelector(CXFourCharCode("box#")); }
    static Ref plugInClockDeviceList() { return initWithSelector(CXFourCharCode("clk#")); }
    static Ref plugInDeviceList() { return initWithSelector(CXFourCharCode("dev#")); }
    static Ref stereoPanControlPanningChannels() { return initWithSelector(CXFourCharCode("spcc")); }
    static Ref stereoPanControlValue() { return initWithSelector(CXFourCharCode("spcv")); }
    static Ref streamIsActive(uint32_t scope) { return initWithSelector(CXFourCharCode("sact"), scope); }
    static Ref streamLatency(uint32_t scope) { return initWithSelector(CXFourCharCode("ltnc"), scope); }
    static Ref streamPhysicalFormat(uint32_t scope)
    {
        return initWithSelector(CXFourCharCode("pft "), scope);
    }
    static Ref streamAvailablePhysicalFormats(uint32_t scope)
    {
        return initWithSelector(CXFourCharCode("pfta"), scope);
    }
    static Ref streamStartingChannelNumber(uint32_t scope)
    {
        return initWithSelector(CXFourCharCode("schn"), scope);
    }
    static Ref streamTerminalType(uint32_t scope) { return initWithSelector(CXFourCharCode("term"), scope); }
    static Ref streamVirtualFormat(uint32_t scope) { return initWithSelector(CXFourCharCode("sfmt"), scope); }
    static Ref streamAvailableVirtualFormats(uint32_t scope)
    {
        return initWithSelector(CXFourCharCode("sfma"), scope);
    }

private:
    explicit DXRPropertyAddress(const AudioObjectPropertyAddress& address) noexcept : _address(address) {}
    ~DXRPropertyAddress() override;

    const AudioObjectPropertyAddress _address;
};
