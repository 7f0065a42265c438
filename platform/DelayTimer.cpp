#include "DelayTimer.h"

#include "Thread.h"

#include <algorithm>

namespace dxr {

DelayTimer& DelayTimer::shared()
{
    static auto* timer = new DelayTimer; // never destroyed: its thread may be running while the process exits
    return *timer;
}

void DelayTimer::schedule(uint64_t delayNanoseconds, Call call)
{
    constexpr uint64_t longest =
        1'000'000'000ULL * 60 * 60 * 24 * 365; // a later deadline would overflow the clock
    const auto deadline = Clock::now() + std::chrono::nanoseconds(std::min(delayNanoseconds, longest));
    const std::scoped_lock lock(_mutex);
    if (!_started) { // first, so that nothing is left to do if that throws
        Thread("dxr-delay", [this] { _run(); }).detach();
        _started = true;
    }
    _pending.emplace(deadline, std::move(call));
    _changed.notify_one();
}

void DelayTimer::_run()
{
    std::unique_lock lock(_mutex);
    for (;;) {
        if (_pending.empty()) {
            _changed.wait(lock);
        } else if (const auto first = _pending.begin()->first; first > Clock::now()) {
            _changed.wait_until(lock, first);
        } else {
            Call due = std::move(_pending.extract(_pending.begin()).mapped());
            lock.unlock();
            due();
            due = {}; // destroying the queue may run application code, so the lock is not held
            lock.lock();
        }
    }
}

} // namespace dxr
