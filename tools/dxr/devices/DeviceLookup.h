#pragma once

#include "DeviceReport.h"
#include "ToolFailure.h"

/// Thrown for a device that is not connected, and may be later.
class DeviceMissing : public ToolFailure {
public:
    using ToolFailure::ToolFailure;
};

/// The device that a user names. Where `wanted` is a reference, the device that it refers to. Else, in this
/// order: the device of that UID, of that display name, or with `wanted` in its display name or UID, ignoring
/// case. Hidden devices are found by their UID or whole name. With a direction, the device must have channels
/// in it. Throws DeviceMissing, or ToolFailure when several devices match.
/// Threads: any.
DeviceReport findDevice(const std::string& wanted, std::optional<HALDirection> direction = std::nullopt);
/// The same; null when there is no such device, or the text is no reference.
std::optional<DeviceReport> findDeviceIfKnown(const std::string& wanted,
                                              std::optional<HALDirection> direction = std::nullopt);
