#pragma once

#include "DXRDevice.h"
#include "DXRDeviceDescription.h"
#include "DXRPropertyListener.h"

#include <array>

/// One physical device, present or not: its device objects, one per direction, and its reference. When a
/// direction disappears or returns, its device object is moved between `live` and `stashed` and never
/// replaced, so that clients keep the same object when a device is unplugged and plugged in again.
/// Threads:   the manager's lock guards all fields.
class DXRDeviceInfo final : public CXObject {
public:
    static CXRef<DXRDeviceInfo> init() { return CXRef<DXRDeviceInfo>::adopt(new DXRDeviceInfo); }

    AudioObjectID deviceID = kAudioObjectUnknown; ///< 0 while the device is absent
    CXRef<DXRDeviceReference> reference;          ///< of the device as a whole
    CXRef<DXRDevice> input, output;               ///< live; for an absent device, the last live ones
    CXRef<DXRDevice> _input, _output;   ///< stashed: the direction has disappeared, the device has not
    CXRef<DXRPropertyListener> streams; ///< listens to the streams of a present device
    uint64_t archiveOrder = 0;          ///< position among the absent devices

    CXRef<DXRDevice>& live(bool isInput) { return isInput ? input : output; }
    CXRef<DXRDevice>& stashed(bool isInput) { return isInput ? _input : _output; }

    /// Reads the description of the device with this ID, and rebuilds the references if it has changed. The
    /// reference of the device as a whole is null if it cannot be read, that of a direction if it has no
    /// channels. If a read fails, complete references to this device stay, and incomplete ones keep what was
    /// read before. Returns true if references were incomplete, because something could not be read, and are
    /// complete now: they may be equal to the old ones and still contain more.
    bool identify(AudioObjectID forDeviceID);
    const CXRef<DXRDeviceReference>& currentReference() const noexcept { return _current; }
    const CXRef<DXRDeviceReference>& currentReference(bool isInput) const noexcept
    {
        return _directed[isInput ? 0 : 1];
    }
    /// Whether a value of the reference is missing because it could not be read.
    bool isIncomplete() const noexcept;
    /// Takes over the description, the references and the listener of `other`.
    void adoptIdentityOf(DXRDeviceInfo& other);

private:
    DXRDeviceInfo() = default;
    ~DXRDeviceInfo() override = default;

    AudioObjectID _identifiedID = kAudioObjectUnknown;
    bool _isIncomplete = false; // some value could not be read
    DXRDeviceDescription _description;
    CXRef<DXRDeviceReference> _current;
    std::array<CXRef<DXRDeviceReference>, 2> _directed; // input, output
};
