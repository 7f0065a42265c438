#pragma once

#include "SimulatedRun.h"

#include <condition_variable>
#include <map>
#include <thread>

/// Runs cycles when they fall due: on the stepped clock as the application asks, on the real-time clock on a
/// thread for each run.
/// Threads: any; advance() and stepCycles() on one at a time, which is the IO thread then.
/// Waits:   remove() for a running cycle, except on the IO thread.
class SimulatedScheduler {
public:
    explicit SimulatedScheduler(bool isStepped);
    ~SimulatedScheduler();
    SimulatedScheduler(const SimulatedScheduler&) = delete;
    SimulatedScheduler& operator=(const SimulatedScheduler&) = delete;

    /// Begins the run's cycles; 'what' when there is no thread for them.
    HALStatus add(const CXRef<SimulatedRun>& run);
    /// Ends them: on return no cycle of the run runs, on its IO thread the current one is the last.
    void remove(const CXRef<SimulatedRun>& run);
    /// Looks again at when the run's next cycle is due.
    void reschedule(const CXRef<SimulatedRun>& run);

    void advance(uint64_t nanoseconds);
    void stepCycles(uint32_t count);
    uint64_t nowTicks() const;

private:
    class IOThread; // on the real-time clock

    std::vector<CXRef<SimulatedRun>> _runs() const;
    bool _runNextCycle(uint64_t untilTicks);

    const bool _isStepped;
    mutable std::mutex _mutex; // what follows; held for look-ups only
    std::condition_variable _cycleEnded;
    std::map<CXRef<SimulatedRun>, CXRef<IOThread>> _threads; // no thread on the stepped clock
    uint64_t _nowTicks = 1'000'000'000;                      // stepped clock
    const SimulatedRun* _inCycle = nullptr;                  // the run that the stepping thread is in
    std::thread::id _steppingThread;
};
