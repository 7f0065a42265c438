#include "PipeWireSession.h"

#include "LogSink.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <pipewire/pipewire.h>
#include <utility>

namespace {

constexpr std::chrono::milliseconds firstRetry{5};
constexpr std::chrono::milliseconds lastRetry{1000};
constexpr std::chrono::milliseconds maxWaitForReply{4000};
constexpr std::chrono::milliseconds secondWaitForReply{1000};

/// Whether an error that the core reports about itself is only the server's reply to a request, about an
/// object that has just disappeared or that we may not use; the connection then continues. All other errors
/// end the connection. There are many: a server that dies before it has read everything causes ECONNRESET as
/// well as EPIPE.
bool isReply(int result)
{
    return result == -ENOENT || result == -EACCES || result == -EPERM;
}

/// Whether an attempt failed because no server runs, and not because of a failure in this process.
bool isServerAbsent(int error)
{
    return error == EHOSTDOWN || error == ECONNREFUSED || error == EAGAIN;
}

} // namespace

struct PipeWireSession::Listeners {
    spa_hook core{};
    spa_hook registry{};
};

PipeWireSession::PipeWireSession(PipeWireLoop& loop, PipeWireSessionClient& client,
                                 std::optional<std::string> remote)
    : _loop(loop), _client(client), _remote(std::move(remote)), _listeners(std::make_unique<Listeners>()),
      _watch(loop, PipeWireSocketWatch::socketsOfRemote(_remote), [this] { _socketsChanged(); }),
      _timer(loop, [this] { _turn(); }), _retryDelay(firstRetry)
{}

PipeWireSession::~PipeWireSession()
{
    disconnect();
    if (_context)
        pw_context_destroy(_context);
}

// ---- States

void PipeWireSession::connect()
{
    if (_state == State::Ended)
        _try();
}

void PipeWireSession::disconnect()
{
    _state = State::Ended;
    _timer.stop();
    _endConnection();
}

void PipeWireSession::_try()
{
    _timer.stop();
    if (_makeConnection()) {
        _state = State::Connected;
        _connectedSince = PipeWireLoop::Clock::now();
        _client.sessionConnected();
    } else {
        _wait();
        _client.sessionFoundNoServer();
    }
}

void PipeWireSession::_wait()
{
    _state = State::Waiting;
    // Watch before checking for sockets, so that a socket that is created after the check is reported.
    const bool isWatching = _watch.watch();
    if (isWatching && !_watch.socketExists())
        return;
    _timer.start(_retryDelay);
    _retryDelay = std::min(2 * _retryDelay, lastRetry);
}

void PipeWireSession::_turn()
{
    // This process may have been stopped, or its loop busy, with the request unsent or the reply unread.
    if (_state == State::Connected && !std::exchange(_waitsAgain, true))
        return _timer.start(secondWaitForReply);
    if (_state == State::Connected)
        dxr::LogSink::log(
            "PipeWire: the server reads nothing from this connection any more; connecting again");
    if (_state == State::Broken || _state == State::Connected) {
        if (PipeWireLoop::Clock::now() - _connectedSince >= lastRetry)
            _retryDelay = firstRetry;
        _endConnection();
        _wait();
    } else if (_state == State::Waiting) {
        _try();
    }
}

void PipeWireSession::_socketsChanged()
{
    // Reset in every state, because the change may be reported before the old connection ends.
    _retryDelay = firstRetry;
    if (_state == State::Waiting)
        _try();
}

void PipeWireSession::_coreError(void* data, uint32_t id, int /*sequence*/, int result,
                                 const char* /*message*/)
{
    auto* self = static_cast<PipeWireSession*>(data);
    // Errors about other objects are caused by races with their removal and can be ignored.
    if (id != PW_ID_CORE || isReply(result) || self->_state != State::Connected)
        return;
    self->_state = State::Broken;
    self->_timer.start(std::chrono::milliseconds(0));
}

// ---- The connection

bool PipeWireSession::_makeConnection()
{
    static const pw_core_events coreEvents = [] {
        pw_core_events events{};
        events.version = PW_VERSION_CORE_EVENTS;
        events.done = _coreDone;
        events.error = _coreError;
        return events;
    }();
    static const pw_registry_events registryEvents{PW_VERSION_REGISTRY_EVENTS, _global, _globalRemove};

    if (!_context && !_makeContext())
        return false;
    PipeWireProperties properties{{PW_KEY_APP_NAME, "dxr"}};
    if (_remote)
        properties.set(PW_KEY_REMOTE_NAME, *_remote);
    _core = pw_context_connect(_context, properties.copy(), 0);
    const int error = errno;
    _registry = _core ? pw_core_get_registry(_core, PW_VERSION_REGISTRY, 0) : nullptr;
    if (!_registry) {
        if (_core)
            pw_core_disconnect(std::exchange(_core, nullptr));
        else if (!isServerAbsent(error)) // a context created when resources ran out may be incomplete
            pw_context_destroy(std::exchange(_context, nullptr));
        return false;
    }
    pw_core_add_listener(_core, &_listeners->core, &coreEvents, this);
    pw_registry_add_listener(_registry, &_listeners->registry, &registryEvents, this);
    return true;
}

bool PipeWireSession::_makeContext()
{
    // The real-time configuration also makes the audio thread a real-time thread.
    _context =
        pw_context_new(_loop.get(), PipeWireProperties{{PW_KEY_CONFIG_NAME, "client-rt.conf"}}.copy(), 0);
    if (!_context && !std::exchange(_hasReported, true))
        dxr::LogSink::log(std::string("PipeWire: no context: ") + std::strerror(errno));
    return _context != nullptr;
}

void PipeWireSession::_endConnection()
{
    if (!_core)
        return;
    _client.sessionDisconnected();
    _syncs.clear();
    _waitsForReply = false;
    spa_hook_remove(&_listeners->registry);
    spa_hook_remove(&_listeners->core);
    *_listeners = {};
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(std::exchange(_registry, nullptr)));
    pw_core_disconnect(std::exchange(_core, nullptr));
}

void PipeWireSession::sync(const void* owner, PipeWireLoop::Work done)
{
    if (_core)
        _syncs[pw_core_sync(_core, PW_ID_CORE, 0)] = {owner, std::move(done)};
}

void PipeWireSession::forget(const void* owner)
{
    std::erase_if(_syncs, [owner](const auto& each) { return each.second.owner == owner; });
}

/// An event shows that the server runs: a reply that is due must follow soon. Call it after the event was
/// handled, which may be what makes a reply due.
void PipeWireSession::_noteEvent()
{
    if (_state != State::Connected || _syncs.empty() || std::exchange(_waitsForReply, true))
        return;
    _waitsAgain = false;
    _timer.start(maxWaitForReply);
}

pw_proxy* PipeWireSession::bind(uint32_t id, const char* type, uint32_t version, size_t userDataSize)
{
    return _registry ? static_cast<pw_proxy*>(pw_registry_bind(_registry, id, type, version, userDataSize))
                     : nullptr;
}

pw_proxy* PipeWireSession::create(const char* factory, const char* type, uint32_t version,
                                  const PipeWireProperties& properties)
{
    if (!_core)
        return nullptr;
    pw_properties* all = properties.copy();
    auto* proxy = static_cast<pw_proxy*>(pw_core_create_object(_core, factory, type, version, &all->dict, 0));
    pw_properties_free(all);
    return proxy;
}

void PipeWireSession::waitForAudioThread()
{
    const auto nothing = [](spa_loop*, bool, uint32_t, const void*, size_t, void*) { return 0; };
    if (_context)
        pw_data_loop_invoke(pw_context_get_data_loop(_context), nothing, 0, nullptr, 0, true, nullptr);
}

void PipeWireSession::_coreDone(void* data, uint32_t id, int sequence)
{
    auto* self = static_cast<PipeWireSession*>(data);
    if (id != PW_ID_CORE)
        return;
    const bool wasWaiting = std::exchange(self->_waitsForReply, false);
    if (wasWaiting && self->_state == State::Connected)
        self->_timer.stop();
    if (auto waiting = self->_syncs.extract(sequence))
        waiting.mapped().done();
    if (wasWaiting)
        self->_noteEvent(); // the server may have stopped reading between two requests
}

void PipeWireSession::_global(void* data, uint32_t id, uint32_t /*permissions*/, const char* type,
                              uint32_t /*version*/, const spa_dict* properties)
{
    auto* self = static_cast<PipeWireSession*>(data);
    self->_client.globalAppeared(id, type, PipeWireProperties(properties));
    self->_noteEvent();
}

void PipeWireSession::_globalRemove(void* data, uint32_t id)
{
    auto* self = static_cast<PipeWireSession*>(data);
    self->_client.globalDisappeared(id);
    self->_noteEvent();
}
