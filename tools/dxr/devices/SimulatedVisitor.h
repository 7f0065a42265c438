#pragma once

#include <chrono>
#include <condition_variable>
#include <dxr/simulated.h>
#include <mutex>
#include <thread>

/// Changes devices of the simulated computer repeatedly: connects and disconnects headphones, renames a
/// microphone, sets volumes and sources.
/// Threads: one at a time. The changes are made on a thread that the object owns.
class SimulatedVisitor {
public:
    static constexpr std::chrono::milliseconds usualPause{400};

    /// `pause` is the time between changes.
    SimulatedVisitor(CXRef<SimulatedHardware> hardware, std::chrono::milliseconds pause);
    ~SimulatedVisitor();
    SimulatedVisitor(const SimulatedVisitor&) = delete;
    SimulatedVisitor& operator=(const SimulatedVisitor&) = delete;

private:
    void _visit();
    bool _pause();

    const CXRef<SimulatedHardware> _hardware;
    const std::chrono::milliseconds _pauseBetween;
    std::mutex _mutex;
    std::condition_variable _ended;
    bool _isOver = false; // guarded by _mutex
    std::thread _thread;
};
