#pragma once

#include "HALHardwareDriver.h"

class PipeWireHardware;
class PipeWireReply;

/// Carries out clients' requests to the server's devices on the loop's thread.
/// Threads: any.
class PipeWireRequests : public HALHardwareDriver {
public:
    using Reply = CXRef<PipeWireReply>;
    using Work = CXBlock<void(PipeWireHardware&, const Reply&)>;
    /// Runs `work` on the loop's thread and waits for its reply. Inside a cycle and on the loop's thread,
    /// which must not wait, returns success at once.
    virtual HALStatus carryOut(const Work& work, HALDeadline deadline) = 0;
};
