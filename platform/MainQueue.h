#pragma once

#include "WorkQueue.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <sys/types.h>

namespace dxr {

/// The queue of the application's main thread, which serves it by calling run(), or by calling drain() from
/// its own event loop (Qt, GLib, poll) whenever fd() is readable.
class DXR_EXPORT MainQueue final : public WorkQueue {
public:
    static MainQueue& shared();

    void async(Work work) override;
    /// Returns true on the main thread: the thread that served the queue last, or the process's first thread
    /// if none has.
    bool isCurrent() const noexcept override;

    /// A descriptor that is readable while work is pending. Must not be read or closed.
    int fd() const noexcept { return _descriptor; }
    /// Runs the work that is pending now, but not work added meanwhile. Returns the number of items run. Does
    /// not wait.
    size_t drain();
    /// Serves the queue until stop() is called; for programs without an event loop.
    void run();
    /// Makes run() return after the current work; if called before run(), makes it return at once. May be
    /// called on any thread and from a signal handler.
    void stop() noexcept;

private:
    MainQueue();
    ~MainQueue() override = default;

    bool _runOne();
    void _signal() const noexcept;
    void _clearSignal() const noexcept;

    const int _descriptor; // an eventfd; -1 if it could not be created, and run() then polls
    std::mutex _mutex;
    std::deque<Work> _waiting;
    std::atomic<pid_t> _servingThread;
    std::atomic<bool> _stopped{false};
};

} // namespace dxr
