#include "PipeWireSession.h"

#include "LogSink.h"

#include <cerrno>
#include <cstring>
#include <pipewire/pipewire.h>

namespace {

// A server binds its socket a moment before it listens on it, and the kernel tells only of the first.
constexpr std::chrono::milliseconds firstRetry{5};
constexpr std::chrono::milliseconds lastRetry{1000};

} // namespace

struct PipeWireSession::Listeners {
    spa_hook core{};
    spa_hook registry{};
};

PipeWireSession::PipeWireSession(PipeWireLoop& loop, PipeWireSessionClient& client,
                                 std::optional<std::string> remote)
    : _loop(loop), _client(client), _remote(std::move(remote)), _listeners(std::make_unique<Listeners>()),
      _watch(loop, PipeWireSocketWatch::socketsOfRemote(_remote), [this] { _socketsChanged(); }),
      _retryTimer(loop, [this] { _retry(); }), _lostTimer(loop, [this] { _connectionLost(); })
{
    // The real-time configuration also makes the audio thread a real-time thread.
    _context =
        pw_context_new(loop.get(), PipeWireProperties{{PW_KEY_CONFIG_NAME, "client-rt.conf"}}.copy(), 0);
    if (!_context)
        platform::LogSink::log(std::string("PipeWire: no context: ") + std::strerror(errno));
}

PipeWireSession::~PipeWireSession()
{
    disconnect();
    if (_context)
        pw_context_destroy(_context);
}

void PipeWireSession::connect()
{
    if (!_tryConnect())
        _client.sessionFoundNoServer();
}

bool PipeWireSession::_tryConnect()
{
    static const pw_core_events coreEvents = [] {
        pw_core_events events{};
        events.version = PW_VERSION_CORE_EVENTS;
        events.done = _coreDone;
        events.error = _coreError;
        return events;
    }();
    static const pw_registry_events registryEvents{PW_VERSION_REGISTRY_EVENTS, _global, _globalRemove};

    if (_core || !_context)
        return _core != nullptr;
    PipeWireProperties properties{{PW_KEY_APP_NAME, "dxr"}};
    if (_remote)
        properties.set(PW_KEY_REMOTE_NAME, *_remote);
    _core = pw_context_connect(_context, properties.copy(), 0);
    if (!_core)
        return false;
    pw_core_add_listener(_core, &_listeners->core, &coreEvents, this);
    _registry = pw_core_get_registry(_core, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(_registry, &_listeners->registry, &registryEvents, this);
    _client.sessionConnected();
    return true;
}

void PipeWireSession::disconnect()
{
    if (!_core)
        return;
    _client.sessionDisconnected();
    _syncs.clear();
    spa_hook_remove(&_listeners->registry);
    spa_hook_remove(&_listeners->core);
    *_listeners = {};
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(_registry));
    pw_core_disconnect(_core);
    _registry = nullptr;
    _core = nullptr;
}

void PipeWireSession::_connectionLost()
{
    disconnect();
    _socketsChanged(); // a new server may be there already
}

void PipeWireSession::_socketsChanged()
{
    _retryDelay = firstRetry;
    _retry();
}

void PipeWireSession::_retry()
{
    _retryTimer.stop();
    if (_tryConnect() || _retryDelay > lastRetry)
        return; // from here on, only a change in the socket's folder is worth another try
    _retryTimer.start(_retryDelay);
    _retryDelay *= 2;
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
    if (auto waiting = self->_syncs.extract(sequence))
        waiting.mapped().done();
}

void PipeWireSession::_coreError(void* data, uint32_t id, int /*sequence*/, int result,
                                 const char* /*message*/)
{
    auto* self = static_cast<PipeWireSession*>(data);
    // Errors about other objects come from races with their removal and mean nothing.
    if (id != PW_ID_CORE || result != -EPIPE)
        return;
    self->_lostTimer.start(std::chrono::milliseconds(0)); // we are called by what is to be torn down
}

void PipeWireSession::_global(void* data, uint32_t id, uint32_t /*permissions*/, const char* type,
                              uint32_t /*version*/, const spa_dict* properties)
{
    static_cast<PipeWireSession*>(data)->_client.globalAppeared(id, type, PipeWireProperties(properties));
}

void PipeWireSession::_globalRemove(void* data, uint32_t id)
{
    static_cast<PipeWireSession*>(data)->_client.globalDisappeared(id);
}
