#include "Interrupts.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <iostream>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace {

// Used by the signal handler, on the thread that receives the signal.
std::atomic<bool> asked{false};
std::atomic<int> wakeDescriptor{-1};
std::atomic<void (*)()> lastAct{nullptr};
std::atomic<bool> isWorkLeftBehind{false};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

constexpr int endingSignals[] = {SIGINT, SIGTERM, SIGHUP};

extern "C" void noteSignal(int signal)
{
    if (asked.exchange(true)) { // the second signal: the process does not end by itself
        if (void (*const act)() = lastAct)
            act();
        _exit(128 + signal);
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wakeDescriptor.load(), &one, sizeof one);
}

} // namespace

Interrupts::Interrupts()
{
    wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    for (const int signal : endingSignals)
        setHandler(signal, noteSignal, SA_RESTART);
    setHandler(SIGPIPE, SIG_IGN, SA_RESTART);
}

Interrupts::~Interrupts()
{
    for (const int signal : endingSignals)
        setHandler(signal, SIG_DFL, SA_RESTART);
    setHandler(SIGPIPE, SIG_DFL, SA_RESTART);
    close(wakeDescriptor.exchange(-1));
}

bool Interrupts::wasAsked() noexcept
{
    return asked;
}

int Interrupts::fd() noexcept
{
    return wakeDescriptor;
}

bool Interrupts::wait(int milliseconds, int otherFD)
{
    pollfd waited[] = {{fd(), POLLIN, 0}, {otherFD, POLLIN, 0}};
    poll(waited, 2, milliseconds);
    return !wasAsked();
}

bool Interrupts::waitToWrite(int descriptor)
{
    constexpr int graceMilliseconds = 1000;
    pollfd waited[] = {{descriptor, POLLOUT, 0}, {fd(), POLLIN, 0}};
    for (bool isLast = false; !isLast && waited[0].revents == 0;) {
        isLast = wasAsked();
        poll(waited, isLast ? 1 : 2, isLast ? graceMilliseconds : -1);
    }
    errno = EINTR;
    return waited[0].revents != 0;
}

bool Interrupts::runUnlessAsked(std::function<void()> work, int graceMilliseconds) const
{
    constexpr int stepMilliseconds = 10;
    std::packaged_task<void()> task(std::move(work));
    std::future<void> end = task.get_future();
    std::thread(std::move(task)).detach();
    while (end.wait_for(std::chrono::milliseconds(stepMilliseconds)) != std::future_status::ready)
        if (wasAsked() && (graceMilliseconds -= stepMilliseconds) < 0) {
            isWorkLeftBehind = true;
            return false;
        }
    end.get();
    return true;
}

void Interrupts::setLastAct(void (*act)()) noexcept
{
    lastAct = act;
}

void Interrupts::setHandler(int signal, void (*handler)(int), int flags)
{
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(signal, &action, nullptr);
}

void Interrupts::endProcess(int status)
{
    std::cout.flush();
    if (isWorkLeftBehind)
        std::_Exit(status); // exit() would destroy static objects that the remaining work uses
    std::exit(status);
}
