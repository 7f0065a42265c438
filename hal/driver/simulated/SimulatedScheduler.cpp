#include "SimulatedScheduler.h"

#include "HostClock.h"
#include "LogSink.h"
#include "RealtimeScheduling.h"
#include "Thread.h"

#include <algorithm>
#include <chrono>
#include <system_error>

namespace {

/// The stepped clock's last time, after 292 years: a sum of it and the length of a cycle does not overflow.
constexpr uint64_t lastTicks = INT64_MAX;

} // namespace

/// Runs one run's cycles when they are due, until stop().
class SimulatedScheduler::IOThread final : public CXObject {
public:
    static CXRef<IOThread> initWithRun(CXRef<SimulatedRun> run)
    {
        auto thread = CXRef<IOThread>::adopt(new IOThread(std::move(run)));
        thread->_thread = dxr::Thread("dxr-io", [thread] { thread->_main(); });
        return thread;
    }

    /// No cycle begins after this returns; on the IO thread itself, the current cycle is the last.
    void stop()
    {
        {
            const std::scoped_lock lock(_mutex);
            _isStopped = true;
        }
        _wake.notify_one();
        _thread.join();
    }

    void wake()
    {
        {
            const std::scoped_lock lock(_mutex);
            ++_wakeUps;
        }
        _wake.notify_one();
    }

private:
    explicit IOThread(CXRef<SimulatedRun> run) : _run(std::move(run)) {}

    void _main()
    {
        if (dxr::makeCurrentThreadRealtime().grant == dxr::RealtimeGrant::None)
            dxr::LogSink::log("No real-time scheduling for a simulated device: its cycles may come late");
        while (_waitUntilDue()) {
            const uint64_t now = dxr::HostClock::nowTicks();
            const uint64_t due = _run->nextCycleTicks();
            const uint64_t cycle = _run->cycleTicks();
            if (due > now || cycle == 0) // the due time has changed meanwhile
                continue;
            if (const uint64_t lost = (now - due) / cycle)
                _run->loseCycles(lost);
            _run->runCycle();
        }
    }

    /// Returns false if the thread is to stop.
    bool _waitUntilDue()
    {
        std::unique_lock lock(_mutex);
        while (!_isStopped) {
            const uint32_t seen = _wakeUps;
            const auto isAwake = [&] { return _isStopped || _wakeUps != seen; };
            lock.unlock();
            const uint64_t due = _run->nextCycleTicks();
            lock.lock();
            if (due == UINT64_MAX)
                _wake.wait(lock, isAwake);
            else if (!_wake.wait_until(
                         lock, std::chrono::steady_clock::time_point{std::chrono::nanoseconds(due)}, isAwake))
                return true;
        }
        return false;
    }

    const CXRef<SimulatedRun> _run;
    std::mutex _mutex;
    std::condition_variable _wake;
    bool _isStopped = false;
    uint32_t _wakeUps = 0;
    dxr::Thread _thread;
};

SimulatedScheduler::SimulatedScheduler(bool isStepped) : _isStepped(isStepped) {}

SimulatedScheduler::~SimulatedScheduler() = default;

HALStatus SimulatedScheduler::add(const CXRef<SimulatedRun>& run)
try {
    run->begin(nowTicks());
    const CXRef<IOThread> thread = _isStepped ? nullptr : IOThread::initWithRun(run);
    const std::scoped_lock lock(_mutex);
    _threads.emplace(run, thread);
    return kAudioHardwareNoError;
} catch (const std::system_error& error) {
    dxr::LogSink::log(std::string("Simulated device: cannot create a thread: ") + error.what());
    return kAudioHardwareUnspecifiedError;
}

void SimulatedScheduler::remove(const CXRef<SimulatedRun>& run)
{
    CXRef<IOThread> thread;
    {
        const std::scoped_lock lock(_mutex);
        const auto found = _threads.find(run);
        if (found == _threads.end())
            return;
        thread = std::move(found->second);
        _threads.erase(found);
    }
    run->end();
    if (thread)
        thread->stop();
    std::unique_lock lock(_mutex);
    _cycleEnded.wait(lock,
                     [&] { return _inCycle != run.get() || _steppingThread == std::this_thread::get_id(); });
}

void SimulatedScheduler::reschedule(const CXRef<SimulatedRun>& run)
{
    CXRef<IOThread> thread;
    {
        const std::scoped_lock lock(_mutex);
        const auto found = _threads.find(run);
        if (found != _threads.end())
            thread = found->second;
    }
    if (thread)
        thread->wake();
}

// ---- The stepped clock

uint64_t SimulatedScheduler::nowTicks() const
{
    if (!_isStepped)
        return dxr::HostClock::nowTicks();
    const std::scoped_lock lock(_mutex);
    return _nowTicks;
}

void SimulatedScheduler::advance(uint64_t nanoseconds)
{
    if (!_isStepped)
        return;
    const uint64_t now = nowTicks();
    const uint64_t until = now + std::min(nanoseconds, lastTicks - now);
    while (_runNextCycle(until)) {
    }
    const std::scoped_lock lock(_mutex);
    _nowTicks = std::max(_nowTicks, until);
}

void SimulatedScheduler::stepCycles(uint32_t count)
{
    if (!_isStepped)
        return;
    std::map<CXRef<SimulatedRun>, uint64_t> goals;
    for (const CXRef<SimulatedRun>& run : _runs())
        if (run->nextCycleTicks() != UINT64_MAX)
            goals.emplace(run, run->cycleCount() + count);
    const auto isMissed = [&](const CXRef<SimulatedRun>& run) {
        const auto goal = goals.find(run);
        return goal != goals.end() && run->cycleCount() < goal->second && run->nextCycleTicks() != UINT64_MAX;
    };
    // isMissed() is false for a run that ends meanwhile.
    while (std::ranges::any_of(_runs(), isMissed) && _runNextCycle(lastTicks)) {
    }
}

std::vector<CXRef<SimulatedRun>> SimulatedScheduler::_runs() const
{
    std::vector<CXRef<SimulatedRun>> runs;
    const std::scoped_lock lock(_mutex);
    for (const auto& [run, thread] : _threads)
        runs.push_back(run);
    return runs;
}

bool SimulatedScheduler::_runNextCycle(uint64_t untilTicks)
{
    CXRef<SimulatedRun> next;
    uint64_t due = untilTicks;
    for (const CXRef<SimulatedRun>& run : _runs()) {
        const uint64_t ticks = run->nextCycleTicks();
        if (ticks <= due && (!next || ticks < due)) {
            due = ticks;
            next = run;
        }
    }
    if (!next)
        return false;
    {
        const std::scoped_lock lock(_mutex);
        _nowTicks = std::max(_nowTicks, due);
        _inCycle = next.get();
        _steppingThread = std::this_thread::get_id();
    }
    next->runCycle();
    {
        const std::scoped_lock lock(_mutex);
        _inCycle = nullptr;
        _steppingThread = {};
    }
    _cycleEnded.notify_all();
    return true;
}
