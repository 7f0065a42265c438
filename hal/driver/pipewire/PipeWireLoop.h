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

/// The thread that does all PipeWire work except audio, so that this work needs no lock.
/// Threads:   post() and isCurrent() from any thread; get() and the timers on the loop's thread.
/// Real time: no.
/// Fails:     without free descriptors there is no loop. Creating it is retried about once a second; until
///            then get() is null and posted work runs without a loop. If the thread cannot be created, each
///            post() tries again.
class PipeWireLoop {
public:
    using Work = CXBlock<void()>;
    using Clock = std::chrono::steady_clock;

    /// Starts the thread, which calls `started` once, as soon as the loop exists.
    explicit PipeWireLoop(Work started);
    /// Ends the thread after it has run the work posted so far.
    ~PipeWireLoop();
    PipeWireLoop(const PipeWireLoop&) = delete;
    PipeWireLoop& operator=(const PipeWireLoop&) = delete;

    /// Queues `work` for the loop's thread, which runs it in the order posted. Returns false while the thread
    /// does not exist; `work` then runs once it does.
    bool post(Work work);
    bool isCurrent() const noexcept { return _threadID.load() == std::this_thread::get_id(); }
    /// For adding event sources to the loop. Null before `started` is called, never afterwards.
    pw_loop* get() const noexcept { return _loop; }

    // Timers. They need no descriptors: the loop sleeps until the next deadline at most.
    using Deadline = std::multimap<Clock::time_point, Work>::iterator;
    /// Calls `work` once at `time`, unless takeBack() cancels it. The call invalidates the returned iterator.
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

    // Used on the loop's thread only; post() also reads _loop, under the mutex, once _wake is set.
    const Work _started;
    pw_loop* _loop = nullptr;
    std::multimap<Clock::time_point, Work> _deadlines;
    bool _ended = false;

    std::mutex _mutex;
    std::condition_variable _hasPosted; // waited for while there is no loop
    std::deque<Work> _posted;
    spa_source* _wake = nullptr; // set once, under the mutex
    std::atomic<std::thread::id> _threadID;
    bool _hasThread = false; // guarded by _mutex, as is starting the thread
    dxr::Thread _thread;
};
