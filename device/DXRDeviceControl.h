#pragma once

#include "DXRDevice.h"

/// The functions of a device that only its owner may call: to create, connect and name it. For the device
/// manager, and for the engine, which calls refreshIfChannelsChanged().
/// Threads:   one thread at a time for one device, except refreshIfChannelsChanged(): any.
/// Real time: no.
class DXRDeviceControl {
public:
    /// The present device with this ID, in the direction of the reference: output if that has none. Returns
    /// null if the device cannot be read, or has no channels in that direction. `keeper`, by default the
    /// shared keeper, is notified of the device's changes.
    static CXRef<DXRDevice> initWithDeviceID(AudioObjectID deviceID,
                                             const CXRef<DXRDeviceReference>& deviceReference,
                                             const CXRef<DXRDeviceKeeper>& keeper = nullptr)
    {
        return DXRDevice::_initWithDeviceID(deviceID, deviceReference, keeper);
    }
    /// A device that is not connected, from the result of archive(). Returns null if the archive's version is
    /// not 1, its reference is missing or has no direction, or its channel count is invalid. Any other value
    /// that is missing or of the wrong type gets its default.
    static CXRef<DXRDevice> initWithArchive(const CXPlist& archive,
                                            const CXRef<DXRDeviceKeeper>& keeper = nullptr)
    {
        return DXRDevice::_initWithArchive(archive, keeper);
    }

    explicit DXRDeviceControl(DXRDevice& device) noexcept : _device(device) {}

    /// Connects the device to this hardware device and reads it. Does nothing and returns false if it is
    /// connected to that device already, with an equal reference.
    bool connect(AudioObjectID deviceID, const CXRef<DXRDeviceReference>& deviceReference) const
    {
        return _device._connect(deviceID, deviceReference);
    }
    /// Disconnects the device from its hardware. It keeps its values.
    void disconnect() const { _device._disconnect(); }
    void setDeviceReference(const CXRef<DXRDeviceReference>& deviceReference) const
    {
        _device._setDeviceReference(deviceReference);
    }
    /// Sets the name shown instead of the device's own, or removes it; returns whether this is a change.
    bool updateDisplayName(const std::optional<std::string>& name) const
    {
        return _device._updateDisplayName(_device._displayName, name, "displayName");
    }
    bool updateDisplayNameWithSource(const std::optional<std::string>& name) const
    {
        return _device._updateDisplayName(_device._displayNameWithSource, name, "displayNameWithSource");
    }
    /// Whether a device with a generic reference still has the channel counts in that reference, or
    /// they cannot be read.
    bool confirmGenericChannelCounts() const { return _device._confirmGenericChannelCounts(); }
    /// Reads the hardware again if the last reading was incomplete; returns whether it was.
    bool refreshIfIncomplete() const { return _device._refreshIfIncomplete(); }
    /// Reads the hardware again if its channel count differs from channelCount(), for a caller that cannot
    /// wait for the notification; returns whether it differed.
    bool refreshIfChannelsChanged() const { return _device._refreshIfChannelsChanged(); }

private:
    DXRDevice& _device;
};
