#pragma once

#include "CXBlock.h"
#include "Thread.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

struct pw_loop;
struct spa_source;

/// The one thread on which everything of PipeWire but the audio itself happens, so that none of it needs a
/// lock.
/// Threads:   post() from any thread; the rest has its own rule.
/// Real time: no.
/// Fails:     a process without free descriptors gets no loop, and one that may have no more threads no
///            thread; both are tried again about once a second. Until then get() is null and posted work runs
///            without a loop.
class PipeWireLoop {
public:
    using Work = CXBlock<void()>;
    using Clock = std::chrono::steady_clock;

    /// Starts the thread, which calls `started` once, as soon as there is a loop.
    explicit PipeWireLoop(Work started);
    /// Ends the thread after the work posted so far.
    ~PipeWireLoop();
    PipeWireLoop(const PipeWireLoop&) = delete;
    PipeWireLoop& operator=(const PipeWireLoop&) = delete;

    /// Runs `work` on the loop's thread soon, in the order it was posted. False when there is no thread yet.
    bool post(Work work);
    bool isCurrent() const noexcept { return _threadID.load() == std::this_thread::get_id(); }
    /// For what is added to the loop on its own thread. Null before `started` is called, never afterwards.
    pw_loop* get() const noexcept { return _loop; }

    // What runs next by time. Timers need no descriptors: the next deadline is how long the loop may sleep.
    // On the loop's thread.
    using Deadline = std::multimap<Clock::time_point, Work>::iterator;
    /// Calls `work` once at `time`, unless it is taken back. The work has been taken out when it is called.
    Deadline callAt(Clock::time_point time, Work work) { return _deadlines.emplace(time, std::move(work)); }
    void takeBack(Deadline deadline) { _deadlines.erase(deadline); }

private:
    void _startThread();
    void _run();
    bool _makeLoop();
    void _waitForWork();
    void _runPosted();
    int _millisecondsToDeadline() const;
    void _runTimers();

    // The loop's thread's.
    const Work _started;
    pw_loop* _loop = nullptr;
    std::multimap<Clock::time_point, Work> _deadlines;
    bool _ended = false;

    std::mutex _mutex;
    std::condition_variable _hasPosted; // for the time without a loop
    std::deque<Work> _posted;
    spa_source* _wake = nullptr; // set once, under the mutex
    std::atomic<std::thread::id> _threadID;
    bool _hasThread = false; // under the mutex, as the thread's start is
    dxr::Thread _thread;
};
