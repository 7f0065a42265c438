#pragma once

#include "WorkQueue.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <sys/types.h>

namespace dxr {

/// The queue of the application's main thread: the thread that serves it, by run(), or by drain() from a
/// loop of its own (Qt, GLib, poll) whenever fd() is readable.
class DXR_EXPORT MainQueue final : public WorkQueue {
public:
    static MainQueue& shared();

    void async(Work work) override;
    /// Whether the calling thread is the main thread: the last to serve the queue, before that the process's
    /// first thread.
    bool isCurrent() const noexcept override;

    /// A descriptor that polls readable while work waits. Never read or close it.
    int fd() const noexcept { return _descriptor; }
    /// Runs the work that waits now, not what that work adds. Returns how much it ran. Does not wait.
    size_t drain();
    /// Serves the queue until stop(); for a program that has no loop.
    void run();
    /// Ends run(), after the work it is doing; before run(), makes it return at once. From any thread, or
    /// from a signal handler.
    void stop() noexcept;

private:
    MainQueue();
    ~MainQueue() override = default;

    bool _runOne();
    void _signal() const noexcept;
    void _clearSignal() const noexcept;

    const int _descriptor; // an eventfd; -1 when the process had no descriptor left, and run() then polls
    std::mutex _mutex;
    std::deque<Work> _waiting;
    std::atomic<pid_t> _servingThread;
    std::atomic<bool> _stopped{false};
};

} // namespace dxr
