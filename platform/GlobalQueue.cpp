#include "GlobalQueue.h"

#include "Thread.h"

#include <sys/resource.h>
#include <system_error>
#include <unistd.h>

namespace dxr {

namespace {

constexpr size_t maxThreads = 8;
constexpr int niceness = -10;

thread_local bool servesGlobalQueue = false;

} // namespace

GlobalQueue& GlobalQueue::highPriority()
{
    static const CXRef<GlobalQueue>* queue =
        new CXRef(CXRef<GlobalQueue>::adopt(new GlobalQueue)); // never destroyed
    return **queue;
}

void GlobalQueue::prepare()
{
    const std::scoped_lock lock(_mutex);
    if (_threads == 0)
        _addThread();
}

void GlobalQueue::async(Work work)
{
    if (!work)
        return;
    const std::scoped_lock lock(_mutex);
    if (_waiting.size() >= _idle && _threads < maxThreads)
        _addThread();
    _waiting.push_back(std::move(work));
    _changed.notify_one();
}

void GlobalQueue::after(uint64_t delayNanoseconds, Work work)
{
    prepare(); // now, where it may throw: the delay timer's thread could not report an error
    WorkQueue::after(delayNanoseconds, std::move(work));
}

/// Starts a thread. If it cannot be created, work waits for the other threads; if there are none, throws.
void GlobalQueue::_addThread()
{
    try {
        Thread("dxr-global", [this] { _serve(); }).detach();
        ++_threads;
    } catch (const std::system_error&) {
        if (_threads == 0)
            throw;
    }
}

bool GlobalQueue::isCurrent() const noexcept
{
    return servesGlobalQueue;
}

void GlobalQueue::_serve()
{
    servesGlobalQueue = true;
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()),
                // Fails without privileges; the threads then keep their priority.
                niceness);
    std::unique_lock lock(_mutex);
    for (;;) {
        ++_idle;
        _changed.wait(lock, [this] { return !_waiting.empty(); });
        --_idle;
        Work work = std::move(_waiting.front());
        _waiting.pop_front();
        lock.unlock();
        work();
        work = nullptr;
        lock.lock();
    }
}

} // namespace dxr
