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

void GlobalQueue::async(Work work)
{
    if (!work)
        return;
    const std::scoped_lock lock(_mutex);
    _waiting.push_back(std::move(work));
    if (_waiting.size() > _idle && _threads < maxThreads)
        _addThread();
    _changed.notify_one();
}

/// Starts a thread for the work that was queued last. If none can be created, the work waits for the others;
/// without any, it is removed and the error thrown.
void GlobalQueue::_addThread()
{
    try {
        Thread("dxr-global", [this] { _serve(); }).detach();
        ++_threads;
    } catch (const std::system_error&) {
        if (_threads > 0)
            return;
        _waiting.pop_back();
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
