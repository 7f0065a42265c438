#pragma once

#include "DXRDevice.h"
#include "DXRPropertyListener.h"

#include <array>
#include <optional>
#include <string>

/// What a physical device answers to the questions that its references are made of. As long as the answers stay the
/// same, so do the references, which are dear to make.
struct DXRDeviceIdentity {
    std::optional<std::string> uid;
    std::array<uint32_t, 2> channelCounts{}; ///< output, input
    uint32_t transportType = 0;
    // Of a device that could have a generic reference only:
    std::optional<std::string> manufacturer, model, name;

    static DXRDeviceIdentity read(AudioObjectID deviceID);
    bool operator==(const DXRDeviceIdentity&) const = default;
};

/// One physical device, present or not: its device objects, one per direction, and its reference. A device object
/// moves between the live and the stashed place as its direction comes and goes, and is never replaced, so that
/// clients keep the same object across unplug and replug.
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

    /// Asks the device with this ID who it is now; makes the references anew only when that has changed. The
    /// reference of the device as a whole is null when it does not answer, one of a direction when it has no
    /// channels there. Whether references are mended that were made while something could not be read: they may be
    /// equal to the old ones, and yet say more.
    bool identify(AudioObjectID forDeviceID);
    const CXRef<DXRDeviceReference>& currentReference() const noexcept { return _current; }
    const CXRef<DXRDeviceReference>& currentReference(bool isInput) const noexcept
    {
        return _directed[isInput ? 1 : 0];
    }
    /// Takes over what `other` found out about itself, and its listener.
    void adoptIdentityOf(DXRDeviceInfo& other);

private:
    DXRDeviceInfo() = default;
    ~DXRDeviceInfo() override = default;

    AudioObjectID _identifiedID = kAudioObjectUnknown;
    bool _isUncertain = false; // something could not be read
    DXRDeviceIdentity _identity;
    CXRef<DXRDeviceReference> _current;
    std::array<CXRef<DXRDeviceReference>, 2> _directed; // output, input
};
