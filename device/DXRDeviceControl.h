#pragma once

#include "DXRDevice.h"

/// What the owner of a device does with it and clients must not: make it, connect it, name it. For the device
/// manager, and for the engine's refreshIfChannelsChanged().
/// Threads:   one at a time for one device, but for refreshIfChannelsChanged(): any.
/// Real time: no.
class DXRDeviceControl {
public:
    /// The device of this ID that is present, in the direction of the reference. Null when it cannot be read,
    /// has no channels in that direction, or the reference has no direction. `keeper` is notified of its
    /// changes; without one, the shared keeper is.
    static CXRef<DXRDevice> initWithDeviceID(AudioObjectID deviceID,
                                             const CXRef<DXRDeviceReference>& deviceReference,
                                             const CXRef<DXRDeviceKeeper>& keeper = nullptr)
    {
        return DXRDevice::_initWithDeviceID(deviceID, deviceReference, keeper);
    }
    /// A device that is not connected, from what archive() returned. Null for another version than 1, without
    /// a reference that has a direction, or without a possible channel count; anything else that is missing
    /// or of the wrong kind has its default.
    static CXRef<DXRDevice> initWithArchive(const CXPlist& archive,
                                            const CXRef<DXRDeviceKeeper>& keeper = nullptr)
    {
        return DXRDevice::_initWithArchive(archive, keeper);
    }

    explicit DXRDeviceControl(DXRDevice& device) noexcept : _device(device) {}

    /// Gives it this hardware device and reads it; nothing happens when it has it already, by an equal
    /// reference.
    void connect(AudioObjectID deviceID, const CXRef<DXRDeviceReference>& deviceReference) const
    {
        _device._connect(deviceID, deviceReference);
    }
    /// Takes its hardware device away. The values stay.
    void disconnect() const { _device._disconnect(); }
    void setDeviceReference(const CXRef<DXRDeviceReference>& deviceReference) const
    {
        _device._setDeviceReference(deviceReference);
    }
    /// The name to show instead of the device's own, or none; returns whether it differs from the one before.
    bool updateDisplayName(const std::optional<std::string>& name) const
    {
        return _device._updateDisplayName(_device._displayName, name, "displayName");
    }
    bool updateDisplayNameWithSource(const std::optional<std::string>& name) const
    {
        return _device._updateDisplayName(_device._displayNameWithSource, name, "displayNameWithSource");
    }
    /// Whether a device with a generic reference still has the channels that belong to that.
    bool confirmGenericChannelCounts() const { return _device._confirmGenericChannelCounts(); }
    /// Reads the hardware again if something could not be read the last time; returns whether it did.
    bool refreshIfIncomplete() const { return _device._refreshIfIncomplete(); }
    /// Reads the hardware again if its channel count differs from channelCount(), for a caller that cannot
    /// wait for the notification; returns whether it did.
    bool refreshIfChannelsChanged() const { return _device._refreshIfChannelsChanged(); }

private:
    DXRDevice& _device;
};
