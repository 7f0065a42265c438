#pragma once

#include "HALReadFailures.h"

/// Detects whether a hardware read on this thread has failed since this object was created, for a reason
/// other than that the property does not exist. Failed reads are repeated later by the device
/// (DXRDeviceControl::refreshIfIncomplete) and by the manager.
/// Threads:   the thread that created the object.
class DXRReadCheck {
public:
    bool hasFailed() const noexcept { return halReadFailures() != _failuresBefore; }

private:
    const uint64_t _failuresBefore = halReadFailures();
};
