#pragma once

#include <atomic>
#include <functional>

/// Turns Ctrl-C, a hang-up and a polite kill into a flag and a readable descriptor, so that a command ends
/// what it does in good order. A second Ctrl-C ends the process at once, and a closed pipe on standard output
/// is an error instead of an end. Before the first instance, signals do what they always do. Threads: one
/// instance in a process; wasAsked() and fd() from any.
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
    /// Waits so long, or until the user asks, or until `otherFD` (if not -1) is readable. False when the user
    /// has asked.
    bool wait(int milliseconds, int otherFD = -1) const;
    /// Runs `work`, which may wait for a sound server, on a thread of its own and waits for its end, but no
    /// longer than `graceMilliseconds` once the user has asked to stop. False when it was left behind
    /// unfinished; it must own what it uses, and the process must then end by endProcess(). What `work`
    /// throws is thrown here.
    bool runUnlessAsked(std::function<void()> work, int graceMilliseconds = 0) const;
    /// What is done before a second Ctrl-C ends the process, in the signal's handler; null for nothing.
    static void setLastAct(void (*act)()) noexcept;
    /// Ends the process with `status`: in the usual way, or at once when work was left behind. Output is
    /// flushed.
    [[noreturn]] static void endProcess(int status);
};
