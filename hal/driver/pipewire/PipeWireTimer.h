#pragma once

#include "PipeWireLoop.h"

#include <chrono>

/// Calls work once, some time after it was last started.
/// Threads: the loop's.
class PipeWireTimer {
public:
    PipeWireTimer(PipeWireLoop& loop, PipeWireLoop::Work work);
    ~PipeWireTimer();
    PipeWireTimer(const PipeWireTimer&) = delete;
    PipeWireTimer& operator=(const PipeWireTimer&) = delete;

    /// Calls the work `delay` from now instead of whenever it was to be called.
    void start(std::chrono::milliseconds delay);
    void stop();

private:
    PipeWireLoop& _loop;
    const PipeWireLoop::Work _work;
    spa_source* const _source;
};
