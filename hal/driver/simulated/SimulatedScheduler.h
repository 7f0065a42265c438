#pragma once

#include "SimulatedRun.h"

#include <condition_variable>
#include <map>
#include <thread>

/// Runs cycles when they are due: on the stepped clock when the application steps it, on the real-time clock
/// on one thread per run.
/// Threads: any; advance() and stepCycles() on one thread at a time, which is then the IO thread.
/// Waits:   remove() waits for a running cycle, except on the IO thread.
class SimulatedScheduler {
public:
    explicit SimulatedScheduler(bool isStepped);
    ~SimulatedScheduler();
    SimulatedScheduler(const SimulatedScheduler&) = delete;
    SimulatedScheduler& operator=(const SimulatedScheduler&) = delete;

    /// Begins the run's cycles; returns 'what' if no thread can be created for them.
    HALStatus add(const CXRef<SimulatedRun>& run);
    /// Ends the run's cycles: on return no cycle is running; on the IO thread, the current cycle is the last.
    void remove(const CXRef<SimulatedRun>& run);
    /// Rereads when the run's next cycle is due.
    void reschedule(const CXRef<SimulatedRun>& run);

    void advance(uint64_t nanoseconds);
    void stepCycles(uint32_t count);
    uint64_t nowTicks() const;
    bool isStepped() const noexcept { return _isStepped; }

private:
    class IOThread; // on the real-time clock

    std::vector<CXRef<SimulatedRun>> _runs() const;
    bool _runNextCycle(uint64_t untilTicks);

    const bool _isStepped;
    mutable std::mutex _mutex; // guards what follows; held for look-ups only
    std::condition_variable _cycleEnded;
    std::map<CXRef<SimulatedRun>, CXRef<IOThread>> _threads; // null threads on the stepped clock
    uint64_t _nowTicks = 1'000'000'000;                      // stepped clock
    const SimulatedRun* _inCycle = nullptr;                  // the run whose cycle the stepping thread runs
    std::thread::id _steppingThread;
};
