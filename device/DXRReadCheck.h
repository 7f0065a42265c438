#pragma once

#include "HALReadFailures.h"

/// Whether a hardware read by this thread has failed since this was made, for any other reason than that
/// there is no such property. Such reads are done again later: by the device
/// (DXRDeviceControl::refreshIfIncomplete) and the manager.
/// Threads:   the one that made it.
class DXRReadCheck {
public:
    bool hasFailed() const noexcept { return halReadFailures() != _failuresBefore; }

private:
    const uint64_t _failuresBefore = halReadFailures();
};
