#pragma once

#include "HALHardwareDriver.h"

/// Callback interface of the loop's half of the driver. Devices go by a number of the loop's own.
/// Threads: called on the loop's thread.
class PipeWireModel {
public:
    virtual AudioObjectID deviceAppeared(const HALDeviceState& state) = 0;
    virtual void deviceChanged(AudioObjectID deviceID, const HALDeviceState& state) = 0;
    virtual void deviceDisappeared(AudioObjectID deviceID) = 0;
    virtual void defaultChanged(HALDefault which, AudioObjectID deviceID) = 0;
    /// There is a server now, or none any more.
    virtual void serverFound(bool isFound) = 0;
    /// The devices that were there when we came are all told, or there is no server to tell of any.
    virtual void enumerated() = 0;

protected:
    ~PipeWireModel() = default;
};
