#pragma once

#include "DeviceReport.h"

/// Thrown if a device is not connected but may be connected later.
class DeviceMissing : public ToolFailure {
public:
    using ToolFailure::ToolFailure;
};

/// Finds the device that a user names. "default" is the default device of `direction`, by default the output.
/// If `wanted` is a device reference, returns the device it refers to. Otherwise tries, in this order: the
/// device with that UID, the device with that display name, the device whose display name or UID contains
/// `wanted`, ignoring case. Hidden devices are found only by their UID or whole name. If `direction` is
/// given, the device must have channels in it. Throws DeviceMissing, or ToolFailure if several devices match.
DeviceReport findDevice(const std::string& wanted, std::optional<HALDirection> direction = std::nullopt);
/// As findDevice() without "default", but null if none matches; throws DeviceMissing only for references.
std::optional<DeviceReport> findDeviceIfKnown(const std::string& wanted,
                                              std::optional<HALDirection> direction = std::nullopt);
/// The side of a device that a reference is to; null if it is to the whole device, or `text` is none.
std::optional<HALDirection> sideReferredTo(const std::string& text);

/// One direction of a device and some of its channels: DEVICE[:CHANNELS] on a command line.
struct DeviceSelection {
    DeviceReport report; ///< read when the device was found
    CXRef<DXRDevice> device;
    std::vector<uint32_t> channels; ///< from 1, in the user's order
    bool areChannelsChosen = false; ///< false: all channels of the device
    bool isDefault = false;         ///< whether "default" was named: follows the default device

    /// Selects all channels of a device. Throws ToolFailure if it has no device object in that direction.
    static DeviceSelection of(const DeviceReport& report, HALDirection direction);
    /// "default" selects the default device of the direction. Otherwise the whole text is tried as a device,
    /// and then the text before the last colon, followed by channels: "1,2", "3-6" or both. Throws like
    /// findDevice(), and ToolFailure for channels that the device does not have.
    static DeviceSelection find(const std::string& text, HALDirection direction);
    /// Calls find() for each of `texts`. Also throws ToolFailure if two of them name the same device.
    static std::vector<DeviceSelection> findAll(const std::vector<std::string>& texts,
                                                HALDirection direction);

    std::string shortName() const { return report.shortName(); } ///< printable
};

std::string namesOf(const std::vector<DeviceSelection>& selections);
