#include "TestClient.h"

#include <stdexcept>

// What the thread sanitizer finds in PipeWire's own libraries, which it sees only in part, is not ours to mend; nor
// does it see how they hand a port's buffers from the loop to the audio thread.
// Here, because every test program that speaks PipeWire links this file.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() // NOLINT(bugprone-reserved-identifier): its name
{
    return "race:pw_get_user_name\n"
           "race:libspa-audioconvert.so\n"
           "race:libpipewire-module-client-node.so\n"
           "race:libumockdev-preload.so\n" // one buffer for every thread's paths
           "race:portSamples\n"
           "race:interleave\n";
}

pw_properties* newProperties(const NodeProperties& properties)
{
    pw_properties* all = pw_properties_new(nullptr, nullptr);
    for (const auto& [key, value] : properties)
        pw_properties_set(all, key.c_str(), value.c_str());
    return all;
}

TestClient::TestClient(const std::string& remote)
{
    static const pw_core_events coreEvents = [] {
        pw_core_events events{};
        events.version = PW_VERSION_CORE_EVENTS;
        events.done = _done;
        return events;
    }();
    static const pw_registry_events registryEvents{PW_VERSION_REGISTRY_EVENTS, _global, _globalRemove};

    pw_init(nullptr, nullptr);
    _loop = pw_thread_loop_new("test-client", nullptr);
    _context = pw_context_new(pw_thread_loop_get_loop(_loop),
                              newProperties({{PW_KEY_CONFIG_NAME, "client-rt.conf"}}), 0);
    pw_thread_loop_start(_loop);
    locked([&] {
        _core = pw_context_connect(_context, newProperties({{PW_KEY_REMOTE_NAME, remote}}), 0);
        if (!_core)
            return;
        pw_core_add_listener(_core, &_coreListener, &coreEvents, this);
        _registry = pw_core_get_registry(_core, PW_VERSION_REGISTRY, 0);
        pw_registry_add_listener(_registry, &_registryListener, &registryEvents, this);
    });
    if (!_core)
        throw std::runtime_error("no server at " + remote);
    sync();
}

TestClient::~TestClient()
{
    pw_thread_loop_stop(_loop);
    if (_core) {
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(_registry));
        pw_core_disconnect(_core);
    }
    pw_context_destroy(_context);
    pw_thread_loop_destroy(_loop);
}

void TestClient::_done(void* data, uint32_t id, int sequence)
{
    auto* self = static_cast<TestClient*>(data);
    if (id == PW_ID_CORE && sequence == self->_pendingSync) {
        self->_synced = true;
        self->changed();
    }
}

void TestClient::_global(void* data, uint32_t id, uint32_t /*permissions*/, const char* type,
                         uint32_t /*version*/, const spa_dict* properties)
{
    auto* self = static_cast<TestClient*>(data);
    Global global{type, {}};
    for (uint32_t i = 0; properties && i < properties->n_items; ++i)
        global.properties[properties->items[i].key] = properties->items[i].value;
    self->_globals[id] = std::move(global);
    self->changed();
}

void TestClient::_globalRemove(void* data, uint32_t id)
{
    auto* self = static_cast<TestClient*>(data);
    self->_globals.erase(id);
    self->changed();
}

void TestClient::locked(const std::function<void()>& work) const
{
    pw_thread_loop_lock(_loop);
    work();
    pw_thread_loop_unlock(_loop);
}

void TestClient::sync()
{
    locked([this] {
        _synced = false;
        _pendingSync = pw_core_sync(_core, PW_ID_CORE, 0);
    });
    if (!waitUntil([this] { return _synced; }))
        throw std::runtime_error("the server does not answer");
}

bool TestClient::waitUntil(const std::function<bool()>& isTrue, std::chrono::seconds patience) const
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    bool is = false;
    locked([&] {
        while (!(is = isTrue()) && std::chrono::steady_clock::now() < deadline)
            pw_thread_loop_timed_wait(_loop, 1);
    });
    return is;
}

std::vector<uint32_t> TestClient::_find(const std::string& type, const NodeProperties& properties) const
{
    std::vector<uint32_t> ids;
    for (const auto& [id, global] : _globals) {
        bool matches = global.type == type;
        for (const auto& [key, value] : properties) {
            const auto found = global.properties.find(key);
            matches = matches && found != global.properties.end() && found->second == value;
        }
        if (matches)
            ids.push_back(id);
    }
    return ids;
}

std::vector<uint32_t> TestClient::idsOf(const std::string& type, const NodeProperties& properties) const
{
    std::vector<uint32_t> ids;
    locked([&] { ids = _find(type, properties); });
    return ids;
}

uint32_t TestClient::idOf(const std::string& type, const NodeProperties& properties)
{
    std::vector<uint32_t> ids;
    if (!waitUntil([&] { return !(ids = _find(type, properties)).empty(); }))
        throw std::runtime_error("no such object on the server: " + type);
    return ids.front();
}

uint32_t TestClient::nodeID(const std::string& nodeName)
{
    return idOf(PW_TYPE_INTERFACE_Node, {{PW_KEY_NODE_NAME, nodeName}});
}

std::string TestClient::property(uint32_t id, const std::string& key) const
{
    std::string value;
    locked([&] {
        const auto global = _globals.find(id);
        if (global == _globals.end())
            return;
        const auto found = global->second.properties.find(key);
        if (found != global->second.properties.end())
            value = found->second;
    });
    return value;
}

pw_proxy* TestClient::create(const char* factory, const char* type, uint32_t version,
                             const NodeProperties& properties)
{
    pw_properties* all = newProperties(properties);
    auto* proxy = static_cast<pw_proxy*>(pw_core_create_object(_core, factory, type, version, &all->dict, 0));
    pw_properties_free(all);
    return proxy;
}

pw_proxy* TestClient::bind(uint32_t id, const char* type, uint32_t version)
{
    return static_cast<pw_proxy*>(pw_registry_bind(_registry, id, type, version, 0));
}

pw_proxy* TestClient::link(uint32_t outputNode, const std::string& outputPort, uint32_t inputNode,
                           const std::string& inputPort)
{
    const auto port = [this](uint32_t node, const std::string& name) {
        return std::to_string(
            idOf(PW_TYPE_INTERFACE_Port, {{PW_KEY_NODE_ID, std::to_string(node)}, {PW_KEY_PORT_NAME, name}}));
    };
    const NodeProperties ends{{PW_KEY_LINK_OUTPUT_PORT, port(outputNode, outputPort)},
                              {PW_KEY_LINK_INPUT_PORT, port(inputNode, inputPort)}};
    pw_proxy* proxy = nullptr;
    locked([&] { proxy = create("link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK, ends); });
    return proxy;
}

void TestClient::destroy(pw_proxy* proxy)
{
    locked([&] { pw_proxy_destroy(proxy); });
}

void TestClient::destroyObject(uint32_t id)
{
    locked([&] { pw_registry_destroy(_registry, id); });
    sync();
}

void TestClient::commandNode(uint32_t nodeID, uint32_t command)
{
    pw_proxy* proxy = nullptr;
    locked([&] {
        proxy = bind(nodeID, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE);
        const spa_command sent = SPA_NODE_COMMAND_INIT(command);
        pw_node_send_command(reinterpret_cast<pw_node*>(proxy), &sent);
    });
    sync();
    destroy(proxy);
}

void TestClient::permit(uint32_t clientID, uint32_t objectID, uint32_t permissions)
{
    pw_proxy* proxy = nullptr;
    locked([&] {
        proxy = bind(clientID, PW_TYPE_INTERFACE_Client, PW_VERSION_CLIENT);
        const pw_permission permission = PW_PERMISSION_INIT(objectID, permissions);
        pw_client_update_permissions(reinterpret_cast<pw_client*>(proxy), 1, &permission);
    });
    sync();
    destroy(proxy);
}
