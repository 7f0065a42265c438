#pragma once

#include "PipeWireLoop.h"

#include <chrono>
#include <optional>

/// Calls work once, some time after it was last started. It has no descriptor of its own.
/// Threads: the loop's.
class PipeWireTimer {
public:
    PipeWireTimer(PipeWireLoop& loop, PipeWireLoop::Work work);
    ~PipeWireTimer();
    PipeWireTimer(const PipeWireTimer&) = delete;
    PipeWireTimer& operator=(const PipeWireTimer&) = delete;

    /// Calls the work `delay` from now, and no more at the time it was started for before.
    void start(std::chrono::milliseconds delay);
    void stop();

private:
    PipeWireLoop& _loop;
    const PipeWireLoop::Work _work;
    std::optional<PipeWireLoop::Deadline> _deadline; // while it runs
};
