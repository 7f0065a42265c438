#pragma once

#include "HALBackend.h"
#include "HALDeviceState.h"
#include "HALIOProcTable.h"

#include <functional>

/// What aggregate devices ask of the model that they and their sub-devices live in.
/// Threads: any. Nothing here is called with a lock of an aggregate held that an IO thread takes: none takes any.
class AggregateHost {
public:
    virtual HALBackend& backend() = 0;
    virtual AudioObjectID deviceForUID(const std::string& uid) const = 0;
    virtual std::optional<HALDeviceState> stateOf(AudioObjectID deviceID) const = 0;
    virtual void changeState(AudioObjectID deviceID, const std::function<void(HALDeviceState&)>& change) = 0;
    /// The IO callbacks of an aggregate device; none when it is gone.
    virtual CXRef<HALIOProcTable> tableOf(AudioObjectID deviceID) const = 0;

protected:
    ~AggregateHost() = default;
};
