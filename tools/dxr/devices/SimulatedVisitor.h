#pragma once

#include <chrono>
#include <condition_variable>
#include <dxr/simulated.h>
#include <mutex>
#include <thread>

/// Changes to the simulated computer, again and again: headphones are plugged in and out, volumes turned, devices renamed. Threads: its own.
class SimulatedVisitor {
public:
    /// `pause` is from each of its steps to the next.
    explicit SimulatedVisitor(CXRef<SimulatedHardware> backend,
                              std::chrono::milliseconds pause = std::chrono::milliseconds(400));
    ~SimulatedVisitor();
    SimulatedVisitor(const SimulatedVisitor&) = delete;
    SimulatedVisitor& operator=(const SimulatedVisitor&) = delete;

private:
    void _visit();
    bool _pause();

    const CXRef<SimulatedHardware> _backend;
    const std::chrono::milliseconds _pauseBetween;
    std::mutex _mutex;
    std::condition_variable _left;
    bool _isOver = false; // under the mutex
    std::thread _thread;
};
