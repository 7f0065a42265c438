#include "MainQueue.h"

#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace dxr {

MainQueue& MainQueue::shared()
{
    static const CXRef<MainQueue>* queue =
        new CXRef(CXRef<MainQueue>::adopt(new MainQueue)); // never destroyed
    return **queue;
}

MainQueue::MainQueue()
    : WorkQueue("main"), _descriptor(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), _servingThread(getpid())
{}

void MainQueue::async(Work work)
{
    if (!work)
        return;
    const std::scoped_lock lock(_mutex);
    _waiting.push_back(std::move(work));
    if (_waiting.size() == 1)
        _signal();
}

bool MainQueue::isCurrent() const noexcept
{
    return _servingThread.load(std::memory_order_relaxed) == gettid();
}

size_t MainQueue::drain()
{
    _servingThread.store(gettid(), std::memory_order_relaxed);
    size_t left = 0;
    {
        const std::scoped_lock lock(_mutex);
        left = _waiting.size();
        if (left == 0)
            _clearSignal(); // of a stop()
    }
    size_t count = 0;
    while (count < left && _runOne())
        ++count;
    return count;
}

void MainQueue::run()
{
    constexpr int pollMilliseconds = 20; // used only without a descriptor
    while (!_stopped.load()) {
        if (drain() > 0 || _stopped.load()) // a stop() before drain() has no signal any more
            continue;
        pollfd readable{_descriptor, POLLIN, 0};
        while (poll(&readable, 1, _descriptor < 0 ? pollMilliseconds : -1) < 0 && errno == EINTR) {
        }
    }
    _stopped.store(false);
    const std::scoped_lock lock(_mutex);
    if (_waiting.empty())
        _clearSignal(); // stop() made the descriptor readable, but no work is pending
}

void MainQueue::stop() noexcept
{
    _stopped.store(true);
    _signal();
}

bool MainQueue::_runOne()
{
    Work work;
    {
        const std::scoped_lock lock(_mutex);
        if (_waiting.empty())
            return false; // a nested drain() has run it
        work = std::move(_waiting.front());
        _waiting.pop_front();
        if (_waiting.empty())
            _clearSignal();
    }
    work();
    return true;
}

void MainQueue::_signal() const noexcept
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written =
        // Writing to a full counter fails, but the descriptor is readable then.
        write(_descriptor, &one, sizeof one);
}

void MainQueue::_clearSignal() const noexcept
{
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(_descriptor, &count, sizeof count);
}

} // namespace dxr
