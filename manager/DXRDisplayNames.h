#pragma once

#include "DXRDeviceInfoList.h"
#include "DXRDeviceManagerNotifier.h"

/// The display names of devices: devices of one direction with the same name are numbered in the order of
/// their IDs, "Name 1", "Name 2", without the names that other devices have; all others show their plain
/// name. The names with sources are numbered in the same way, on their own.
/// Threads:   under the manager's lock.
class DXRDisplayNames {
public:
    using Devices = DXRDeviceManagerNotifier::Devices;

    /// Names all connected devices. Adds those whose names have changed to `changed`.
    static void number(const DXRDeviceInfoList& connected, Devices& changed);
    /// Returns a device that has disappeared to its plain names. Adds it to `changed` if they were others.
    static void reset(DXRDeviceInfo& info, Devices& changed);
};
