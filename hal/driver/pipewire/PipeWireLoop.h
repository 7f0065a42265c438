#pragma once

#include "CXBlock.h"
#include "Thread.h"

#include <atomic>
#include <deque>
#include <mutex>

struct pw_loop;
struct spa_source;

/// The one thread on which everything of PipeWire but the audio itself happens, so that none of it needs a lock.
/// Threads:   post() from any thread; the rest says its own rule.
/// Real time: no.
class PipeWireLoop {
public:
    using Work = CXBlock<void()>;

    /// Starts the thread. Throws std::runtime_error when the system has no descriptors for a loop.
    PipeWireLoop();
    /// Ends the thread after the work posted so far.
    ~PipeWireLoop();
    PipeWireLoop(const PipeWireLoop&) = delete;
    PipeWireLoop& operator=(const PipeWireLoop&) = delete;

    /// Runs `work` on the loop's thread soon, in the order it was posted.
    void post(Work work);
    bool isCurrent() const noexcept { return _thread.isCurrent(); }
    /// For what is added to the loop on its own thread.
    pw_loop* get() const noexcept { return _loop; }

private:
    void _run();
    void _runPosted();

    pw_loop* const _loop;
    spa_source* const _wake;
    std::mutex _mutex;
    std::deque<Work> _posted;
    bool _ended = false; // on the loop's thread
    platform::Thread _thread;
};
