#pragma once

#include "PipeWireLoop.h"

#include <chrono>
#include <optional>

/// Calls work once, a given time after start(). Needs no descriptor.
/// Threads: the loop's.
class PipeWireTimer {
public:
    PipeWireTimer(PipeWireLoop& loop, PipeWireLoop::Work work);
    ~PipeWireTimer();
    PipeWireTimer(const PipeWireTimer&) = delete;
    PipeWireTimer& operator=(const PipeWireTimer&) = delete;

    /// Calls the work `delay` from now, instead of at the time of an earlier start().
    void start(std::chrono::milliseconds delay);
    void stop();

private:
    PipeWireLoop& _loop;
    const PipeWireLoop::Work _work;
    std::optional<PipeWireLoop::Deadline> _deadline; // set while the timer runs
};
