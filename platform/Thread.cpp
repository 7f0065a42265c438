#include "Thread.h"

#include "Utf8.h"

#include <csignal>
#include <pthread.h>
#include <sys/prctl.h>
#include <utility>

namespace dxr {

namespace {

constexpr size_t maxNameBytes = 15; // the kernel's limit, without the terminator

/// Blocks all signals while it exists, so that a thread created meanwhile inherits the blocked mask.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &_before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t _before{};
};

} // namespace

Thread::Thread(const std::string& name, std::function<void()> body)
{
    const SignalsBlocked blocked;
    _thread = std::thread([shortName = std::string(utf8Prefix(name, maxNameBytes)), run = std::move(body)] {
        pthread_setname_np(pthread_self(), shortName.c_str());
        prctl(PR_SET_TIMERSLACK, 1UL); // nanosecond: the default 50 µs would make every timed wait late
        run();
    });
}

void Thread::setCurrentName(std::string_view name)
{
    pthread_setname_np(pthread_self(), std::string(utf8Prefix(name, maxNameBytes)).c_str());
}

Thread& Thread::operator=(Thread&& other) noexcept
{
    join();
    _thread = std::move(other._thread);
    return *this;
}

Thread::~Thread()
{
    join();
}

void Thread::join()
{
    if (!_thread.joinable())
        return;
    if (isCurrent())
        _thread.detach();
    else
        _thread.join();
}

void Thread::detach()
{
    if (_thread.joinable())
        _thread.detach();
}

} // namespace dxr
