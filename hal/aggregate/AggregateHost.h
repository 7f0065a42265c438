#pragma once

#include "HALBackend.h"
#include "HALDeviceState.h"

#include <functional>

/// What aggregate devices ask of the model that they and their sub-devices live in.
/// Threads: any, with locks of aggregates held; nothing here may call back into one.
class AggregateHost {
public:
    virtual HALBackend& backend() = 0;
    virtual AudioObjectID deviceForUID(const std::string& uid) const = 0;
    virtual std::optional<HALDeviceState> stateOf(AudioObjectID deviceID) const = 0;
    virtual void changeState(AudioObjectID deviceID, const std::function<void(HALDeviceState&)>& change) = 0;

protected:
    ~AggregateHost() = default;
};
