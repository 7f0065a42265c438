#pragma once

#include "DeviceReport.h"

/// A device in one direction and some of its channels: DEVICE[:CHANNELS] on a command line.
/// Threads: any.
struct DeviceSelection {
    DeviceReport report; ///< as read when it was found
    CXRef<DXRDevice> device;
    std::vector<uint32_t> channels; ///< from 1, in the user's order
    bool areChannelsChosen = false; ///< else all of the device's
    bool isDefault = false;         ///< follows the default device

    /// All channels of a device. Throws ToolFailure when it has no device object.
    static DeviceSelection of(const DeviceReport& report, HALDirection direction);
    /// "default" is the default device of the direction. Else, the device that the whole text names; else the
    /// one that the text before the last colon names, with the channels behind it: "1,2", "3-6" or both.
    /// Throws ToolFailure like findDevice(), and for channels that the device does not have.
    static DeviceSelection find(const std::string& text, HALDirection direction);
    /// Throws ToolFailure also when two of `texts` name the same device.
    static std::vector<DeviceSelection> findAll(const std::vector<std::string>& texts,
                                                HALDirection direction);

    std::string shortName() const { return report.shortName(); } ///< printable
};

/// "One + Another": the devices' names, printable.
std::string namesOf(const std::vector<DeviceSelection>& selections);
