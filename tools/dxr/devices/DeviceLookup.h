#pragma once

#include "DeviceReport.h"
#include "ToolFailure.h"

/// Thrown if a device is not connected but may be connected later.
class DeviceMissing : public ToolFailure {
public:
    using ToolFailure::ToolFailure;
};

/// Finds the device that a user names. If `wanted` is a device reference, returns the device it refers to.
/// Otherwise tries, in this order: the device with that UID, the device with that display name, the device
/// whose display name or UID contains `wanted`, ignoring case. Hidden devices are found only by their UID or
/// whole name. If `direction` is given, the device must have channels in it. Throws DeviceMissing, or
/// ToolFailure if several devices match.
/// Threads: any.
DeviceReport findDevice(const std::string& wanted, std::optional<HALDirection> direction = std::nullopt);
/// Like findDevice(), but returns null if no device matches or `wanted` is a malformed reference. Throws
/// DeviceMissing only for a reference to a device that is not connected.
std::optional<DeviceReport> findDeviceIfKnown(const std::string& wanted,
                                              std::optional<HALDirection> direction = std::nullopt);
