#pragma once

#include "DXRDevice.h"
#include "DXRDeviceDescription.h"
#include "DXRPropertyListener.h"

#include <array>

/// One physical device, present or not: its device objects, one per direction, and its reference. A device
/// object moves between the live and the stashed place as its direction comes and goes, and is never
/// replaced, so that clients keep the same object across unplug and replug.
/// Threads:   the manager's lock guards all of it.
class DXRDeviceInfo final : public CXObject {
public:
    static CXRef<DXRDeviceInfo> init() { return CXRef<DXRDeviceInfo>::adopt(new DXRDeviceInfo); }

    AudioObjectID deviceID = kAudioObjectUnknown; ///< 0 while the device is absent
    CXRef<DXRDeviceReference> reference;          ///< of the device as a whole
    CXRef<DXRDevice> input, output;               ///< live; of an absent device, what was live last
    CXRef<DXRDevice> _input, _output;             ///< stashed: the direction has gone, the device has not
    CXRef<DXRPropertyListener> streams;           ///< on the streams of a present device
    uint64_t archiveOrder = 0;                    ///< of an absent device: its place among those

    CXRef<DXRDevice>& live(bool isInput) { return isInput ? input : output; }
    CXRef<DXRDevice>& stashed(bool isInput) { return isInput ? _input : _output; }

    /// Reads the description of the device with this ID, and makes the references anew if it has changed. The
    /// reference of the device as a whole is null when it cannot be read, one of a direction when it has no
    /// channels there. Returns whether references that were incomplete, because something could not be read,
    /// are complete now: they may be equal to the old ones and still contain more.
    bool identify(AudioObjectID forDeviceID);
    const CXRef<DXRDeviceReference>& currentReference() const noexcept { return _current; }
    const CXRef<DXRDeviceReference>& currentReference(bool isInput) const noexcept
    {
        return _directed[isInput ? 0 : 1];
    }
    /// Takes over the description and references of `other`, and its listener.
    void adoptIdentityOf(DXRDeviceInfo& other);

private:
    DXRDeviceInfo() = default;
    ~DXRDeviceInfo() override = default;

    AudioObjectID _identifiedID = kAudioObjectUnknown;
    bool _isIncomplete = false; // something could not be read
    DXRDeviceDescription _description;
    CXRef<DXRDeviceReference> _current;
    std::array<CXRef<DXRDeviceReference>, 2> _directed; // input, output
};
