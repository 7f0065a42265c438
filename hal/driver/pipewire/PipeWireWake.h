#pragma once

#include "CXRealtime.h"
#include "PipeWireLoop.h"

/// Runs work on the loop's thread soon after signal(); several signals before it runs cause a single run.
/// Threads:   signal() from any thread, the rest on the loop's.
/// Real time: signal().
/// Fails:     without a free descriptor, signals have no effect.
class PipeWireWake {
public:
    PipeWireWake(PipeWireLoop& loop, PipeWireLoop::Work work);
    ~PipeWireWake();
    PipeWireWake(const PipeWireWake&) = delete;
    PipeWireWake& operator=(const PipeWireWake&) = delete;

    void signal() const noexcept CX_REALTIME;

private:
    PipeWireLoop& _loop;
    const PipeWireLoop::Work _work;
    spa_source* const _source; // null if no descriptor was free
};
