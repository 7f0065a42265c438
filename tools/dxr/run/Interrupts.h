#pragma once

#include <functional>

/// Turns SIGINT, SIGTERM and SIGHUP into a flag and a readable descriptor. A second such signal ends the
/// process at once. SIGPIPE is ignored: writing to a closed pipe is an error.
/// Threads: at most one instance in a process; wasAsked(), fd() and the waits on any thread.
class Interrupts {
public:
    Interrupts();
    ~Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    static bool wasAsked() noexcept;
    /// A descriptor that polls readable once the user has asked to stop. Do not read from it.
    static int fd() noexcept;
    /// Waits until the user asks to stop, `otherFD` is readable or the time has passed; -1 waits forever.
    /// Returns false if the user has asked to stop.
    static bool wait(int milliseconds, int otherFD);
    /// Waits until `descriptor` can be written; for at most a second once the user has asked to stop, so that
    /// a reader that is only slow gets everything. Returns false, with EINTR in errno, if it still cannot.
    static bool waitToWrite(int descriptor);
    /// Runs `work` on another thread and waits until it ends, or until `graceMilliseconds` after the user has
    /// asked to stop. Returns false if `work` has not ended: its thread goes on, so it must own everything it
    /// uses, and the process must end by endProcess(). Throws what `work` throws.
    bool runUnlessAsked(std::function<void()> work, int graceMilliseconds = 0) const;
    /// Sets a function that the signal handler calls before a second signal ends the process, or null.
    static void setLastAct(void (*act)()) noexcept;
    static void setHandler(int signal, void (*handler)(int), int flags);
    /// Ends the process; without destroying static objects if work of runUnlessAsked() is still running.
    [[noreturn]] static void endProcess(int status);
};
