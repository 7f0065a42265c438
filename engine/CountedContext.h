#pragma once

#include "DXRAudioContext.h"
#include "DXRRunnerCounts.h"

#include <mutex>

/// The running context as a runner's counts report it, without waiting for the runner's queue.
/// Threads:   any. Takes a mutex, under which no other function is called.
class CountedContext {
public:
    /// The running context; null if none runs.
    void set(const DXRAudioContext* context);
    /// The counts of each device of the context, which has lost `lostFrames` frames.
    std::vector<DXRRunnerCounts::Device> counts(uint64_t lostFrames) const;

private:
    struct Context {
        DXRCycleRecord::Context kind = DXRCycleRecord::Context::None;
        AudioObjectID deviceID = kAudioObjectUnknown;
        std::string deviceUID;
    };

    mutable std::mutex _mutex;
    Context _context; // guarded by the mutex
};
