#pragma once

#include <functional>

/// Turns SIGINT, SIGTERM and SIGHUP into a flag and a readable descriptor. A second one ends the process at
/// once. A closed pipe on standard output is an error instead of a signal.
/// Threads: one instance in a process; wasAsked() and fd() from any.
class Interrupts {
public:
    Interrupts();
    ~Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    /// Whether the user has asked to stop.
    bool wasAsked() const noexcept;
    /// Polls readable once the user has asked. Never read it.
    int fd() const noexcept;
    /// Waits until the user asks, `otherFD` is readable or the time is over; -1 is forever. False when the
    /// user has asked.
    bool wait(int milliseconds, int otherFD) const;
    /// Runs `work` on another thread until it ends, or for `graceMilliseconds` after the user has asked to
    /// stop. False when it was left behind unfinished: it must own what it uses, and the process must end by
    /// endProcess(). Throws what `work` throws.
    bool runUnlessAsked(std::function<void()> work, int graceMilliseconds = 0) const;
    /// What the signal handler does before a second signal ends the process; null for nothing.
    static void setLastAct(void (*act)()) noexcept;
    /// Installs a signal handler.
    static void setHandler(int signal, void (*handler)(int), int flags);
    /// Flushes output and ends the process: at once when work was left behind.
    [[noreturn]] static void endProcess(int status);
};
