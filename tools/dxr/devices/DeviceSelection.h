#pragma once

#include "DeviceReport.h"

/// A device in one direction, and which of its channels are meant: what a user says as DEVICE[:CHANNELS].
/// Threads: any.
struct DeviceSelection {
    DeviceReport report; ///< as it was when it was found
    CXRef<DXRDevice> device;
    std::vector<uint32_t> channels; ///< from 1, in the order of the user; all of them where he does not say
    bool areChannelsChosen = false;
    bool isDefault = false; ///< the default device is meant, also when that changes

    /// All channels of a device. Throws ToolFailure when it has no device object.
    static DeviceSelection of(const DeviceReport& report, HALDirection direction);
    /// "default" is the direction's default device. Else the device that all of `text` names, with all its channels; else the one that it names up to its last colon, with
    /// the channels that stand behind: "1,2", "3-6" or both. Throws ToolFailure when there is none, as
    /// DeviceLookup::find() does, and for channels that it does not have.
    static DeviceSelection find(const std::string& text, HALDirection direction);
    /// All of `texts`. Throws ToolFailure for a device that is there twice, too.
    static std::vector<DeviceSelection> findAll(const std::vector<std::string>& texts,
                                                HALDirection direction);

    std::string shortName() const { return report.shortName(); } ///< printable
};

/// The channels of a list such as "1,2" or "3-6,1"; nothing when `text` is none. At most 4096 of them.
std::optional<std::vector<uint32_t>> channelList(std::string_view text);
