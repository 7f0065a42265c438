#include "PipeWireLoop.h"

#include "LogSink.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <pipewire/pipewire.h>
#include <system_error>

namespace {

constexpr std::chrono::seconds betweenAttempts{1};

} // namespace

PipeWireLoop::PipeWireLoop(Work started) : _started(std::move(started))
{
    const std::scoped_lock lock(_mutex);
    _startThread();
}

PipeWireLoop::~PipeWireLoop()
{
    post([this] { _ended = true; });
    _thread.join();
    if (!_loop)
        return;
    pw_loop_destroy_source(_loop, _wake);
    pw_loop_destroy(_loop);
}

void PipeWireLoop::_startThread()
{
    try {
        _thread = dxr::Thread("dxr-pipewire", [this] { _run(); });
        _hasThread = true;
    } catch (const std::system_error& error) {
        dxr::LogSink::log(std::string("PipeWire: cannot create a thread: ") + error.what());
    }
}

bool PipeWireLoop::post(Work work)
{
    const std::scoped_lock lock(_mutex);
    _posted.push_back(std::move(work));
    if (!_hasThread)
        _startThread();
    if (_wake)
        pw_loop_signal_event(_loop, _wake); // writes to a descriptor; allowed on any thread
    else
        _hasPosted.notify_one();
    return _hasThread;
}

void PipeWireLoop::_run()
{
    _threadID = std::this_thread::get_id();
    for (bool isFirst = true; !_ended && !_makeLoop(); isFirst = false) {
        if (isFirst)
            dxr::LogSink::log(std::string("PipeWire: no loop, and no devices until there is one: ") +
                              std::strerror(errno));
        _waitForWork();
    }
    if (!_loop)
        return;
    pw_loop_enter(_loop);
    _started();
    _runPosted(); // posted before the loop could be woken
    while (!_ended) {
        pw_loop_iterate(_loop, _millisecondsToDeadline());
        _runTimers();
    }
    pw_loop_leave(_loop);
}

/// Returns false and sets errno if the loop or its wake event cannot be created.
bool PipeWireLoop::_makeLoop()
{
    pw_init(nullptr, nullptr); // reference-counted; the library stays initialised until the process exits
    pw_loop* loop = pw_loop_new(nullptr);
    spa_source* wake =
        loop ? pw_loop_add_event(
                   loop, [](void* self, uint64_t) { static_cast<PipeWireLoop*>(self)->_runPosted(); }, this)
             : nullptr;
    if (!wake) {
        const int error = errno;
        if (loop)
            pw_loop_destroy(loop);
        pw_deinit(); // so that the next attempt loads again what failed to load
        errno = error;
        return false;
    }
    const std::scoped_lock lock(_mutex);
    _loop = loop;
    _wake = wake;
    return true;
}

void PipeWireLoop::_waitForWork()
{
    const auto until = Clock::now() + betweenAttempts;
    while (!_ended && Clock::now() < until) {
        {
            std::unique_lock lock(_mutex);
            _hasPosted.wait_until(lock, until, [this] { return !_posted.empty(); });
        }
        _runPosted();
    }
}

void PipeWireLoop::_runPosted()
{
    for (;;) {
        Work work;
        {
            const std::scoped_lock lock(_mutex);
            if (_posted.empty())
                return;
            work = std::move(_posted.front());
            _posted.pop_front();
        }
        work();
    }
}

/// Returns -1 if no timer is pending.
int PipeWireLoop::_millisecondsToDeadline() const
{
    if (_deadlines.empty())
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(_deadlines.begin()->first - Clock::now());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 60'000));
}

void PipeWireLoop::_runTimers()
{
    // A timer that is started by another timer's work waits for the next turn: descriptors are served first.
    const auto now = Clock::now();
    while (!_deadlines.empty() && _deadlines.begin()->first <= now)
        _deadlines.extract(_deadlines.begin()).mapped()();
}
