#pragma once

#include "HALHardwareDriver.h"

class PipeWireHardware;
class PipeWireReply;

/// Has the loop carry out what clients ask of the server's devices.
/// Threads: any.
class PipeWireRequests : public HALHardwareDriver {
public:
    using Reply = CXRef<PipeWireReply>;
    using Work = CXBlock<void(PipeWireHardware&, const Reply&)>;
    /// Waits for the reply to `work`; not inside a cycle, which must not wait.
    virtual HALStatus carryOut(const Work& work, HALDeadline deadline) = 0;
};
