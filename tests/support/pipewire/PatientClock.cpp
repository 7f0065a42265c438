#include "PatientClock.h"

#include <algorithm>
#include <chrono>
#include <pthread.h>
#include <spa/node/utils.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds patience{1}; // with one cycle: its end is lost when a node goes meanwhile
constexpr std::chrono::milliseconds mergeTime{50};
constexpr uint64_t neverLate = 3'600'000'000'000ULL; // nanoseconds

PatientClock& clockOf(void* self)
{
    return *static_cast<PatientClock*>(self);
}

} // namespace

PatientClock::PatientClock(const std::string& remote) : _client(remote)
{
    static const spa_node_methods methods = [] {
        spa_node_methods all{};
        all.version = SPA_VERSION_NODE_METHODS;
        all.add_listener = _addListener;
        all.set_callbacks = _setCallbacks;
        all.sync = _sync;
        all.set_io = _setIO;
        all.send_command = _sendCommand;
        all.process = _process;
        return all;
    }();
    spa_hook_list_init(&_hooks);
    _node.iface = SPA_INTERFACE_INIT(SPA_TYPE_INTERFACE_Node, SPA_VERSION_NODE, &methods, this);
    _info = SPA_NODE_INFO_INIT();
    _info.flags = SPA_NODE_FLAG_RT;
    _info.change_mask = SPA_NODE_CHANGE_MASK_FLAGS;
    pw_properties* properties = newProperties({{PW_KEY_NODE_NAME, "patient-clock"},
                                               {PW_KEY_NODE_DRIVER, "true"},
                                               {PW_KEY_PRIORITY_DRIVER, "30000"},
                                               {PW_KEY_NODE_GROUP, group}});
    _client.locked([&] {
        _exported = pw_core_export(_client.core(), SPA_TYPE_INTERFACE_Node, &properties->dict, &_node, 0);
    });
    pw_properties_free(properties);
    _client.nodeID("patient-clock");
    _client.sync();
    _thread = std::thread([this] { _run(); });
}

PatientClock::~PatientClock()
{
    {
        const std::scoped_lock lock(_mutex);
        _isEnded = true;
        _changed.notify_all();
    }
    _thread.join();
    _client.locked([this] { pw_proxy_destroy(_exported); });
}

int PatientClock::_addListener(void* self, spa_hook* listener, const spa_node_events* events, void* data)
{
    PatientClock& clock = clockOf(self);
    spa_hook_list save;
    spa_hook_list_isolate(&clock._hooks, &save, listener, events, data);
    spa_node_emit_info(&clock._hooks, &clock._info);
    spa_hook_list_join(&clock._hooks, &save);
    return 0;
}

int PatientClock::_setCallbacks(void* self, const spa_node_callbacks* callbacks, void* data)
{
    clockOf(self)._callbacks = SPA_CALLBACKS_INIT(callbacks, data);
    return 0;
}

int PatientClock::_sync(void* self, int sequence)
{
    spa_node_emit_result(&clockOf(self)._hooks, sequence, 0, 0, nullptr);
    return 0;
}

int PatientClock::_setIO(void* self, uint32_t id, void* area, size_t /*size*/)
{
    PatientClock& clock = clockOf(self);
    const std::scoped_lock lock(clock._mutex);
    if (id == SPA_IO_Clock)
        clock._clock = static_cast<spa_io_clock*>(area);
    else if (id == SPA_IO_Position)
        clock._position = static_cast<spa_io_position*>(area);
    if (clock._clock)
        std::snprintf(clock._clock->name, sizeof clock._clock->name, "%s", group);
    return 0;
}

int PatientClock::_sendCommand(void* self, const spa_command* command)
{
    PatientClock& clock = clockOf(self);
    const std::scoped_lock lock(clock._mutex);
    clock._isRunning = SPA_NODE_COMMAND_ID(command) == SPA_NODE_COMMAND_Start;
    clock._pendingEnds = 0;
    clock._changed.notify_all();
    return 0;
}

/// All nodes are done.
int PatientClock::_process(void* self)
{
    PatientClock& clock = clockOf(self);
    const std::scoped_lock lock(clock._mutex);
    clock._pendingEnds -= clock._pendingEnds > 0 ? 1 : 0;
    clock._changed.notify_all();
    return SPA_STATUS_OK;
}

void PatientClock::_run()
{
    const sched_param precedence{.sched_priority = 60}; // without the right to it, cycles only take longer
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &precedence);
    std::unique_lock lock(_mutex);
    uint64_t nanoseconds = 0; // of the clock, from which cycles are a period apart exactly
    auto due = Clock::now();
    while (!_isEnded) {
        if (!_isRunning || !_clock || !_position) {
            _changed.wait(lock);
            nanoseconds = 0;
            continue;
        }
        const uint64_t period = _position->clock.duration * 1'000'000'000 / _position->clock.rate.denom;
        due = std::max(due + std::chrono::nanoseconds(period), Clock::now());
        if (_changed.wait_until(lock, due, [this] { return _isEnded || !_isRunning; }))
            continue;
        const uint32_t skipped = _skip.exchange(0);
        _clock->position += skipped * _position->clock.duration;
        nanoseconds = nanoseconds == 0 ? static_cast<uint64_t>(due.time_since_epoch().count())
                                       : nanoseconds + period * (1 + skipped);
        _runCycle(nanoseconds);
        _waitForNodes(lock);
    }
}

void PatientClock::_waitForNodes(std::unique_lock<std::mutex>& lock)
{
    const auto areDone = [this] { return _isEnded || !_isRunning || _pendingEnds == 0; };
    if (_pendingEnds > 1) {
        // The cycle that was given up ends as this one begins, and the two ends may come as one.
        _changed.wait_for(lock, patience, [&] { return areDone() || _pendingEnds == 1; });
        if (_pendingEnds == 1 && !_changed.wait_for(lock, mergeTime, areDone))
            _pendingEnds = 0;
    }
    _changed.wait_for(lock, patience, areDone);
}

/// To its readers the clock is perfect: its time does not show that it waits, and no node is late.
void PatientClock::_runCycle(uint64_t nanoseconds)
{
    _clock->nsec = nanoseconds;
    _clock->next_nsec = nanoseconds + neverLate;
    _clock->rate = _position->clock.rate;
    _clock->duration = _position->clock.duration;
    _clock->position += _clock->duration;
    _clock->delay = 0;
    _clock->rate_diff = 1.0;
    ++_pendingEnds;
    spa_node_call_ready(&_callbacks, SPA_STATUS_NEED_DATA);
}
