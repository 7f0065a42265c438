#pragma once

#include "DeviceReport.h"
#include "ToolFailure.h"

/// The failure of a command whose device is not connected; it may be later.
class DeviceMissing : public ToolFailure {
public:
    using ToolFailure::ToolFailure;
};

/// Finds the device a user means.
/// Threads: any.
class DeviceLookup {
public:
    /// The device that the reference `wanted` names, or could name if it has moved; or the one of the UID
    /// `wanted`; else the one device of that display name; else the one whose display name or UID has
    /// `wanted` in it, ignoring case. Hidden devices are found by UID or whole name. With a
    /// direction, the device must have channels in it, and names are looked for among those that do. Throws
    /// DeviceMissing, or ToolFailure with the candidates when there are several.
    static DeviceReport find(const std::string& wanted, std::optional<HALDirection> direction = std::nullopt);
    /// The same, but nothing where find() would say that there is no such device, or that a text is no
    /// reference.
    static std::optional<DeviceReport> findIfKnown(const std::string& wanted,
                                                   std::optional<HALDirection> direction = std::nullopt);
};
