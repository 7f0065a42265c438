#include "TestClient.h"

#include "Eventually.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

// Suppresses reports of the thread sanitizer in PipeWire's own libraries, which it instruments only in part:
// it does not see, for instance, how they pass a port's buffers from the loop to the audio thread. Defined
// here because every test program that uses PipeWire links this file.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() // NOLINT(bugprone-reserved-identifier): its name
{
    return "race:pw_get_user_name\n"
           "race:libspa-audioconvert.so\n"
           "race:libpipewire-module-client-node.so\n"
           "race:libumockdev-preload.so\n" // one path buffer for all threads
           "race:portSamples\n"
           "race:interleave\n";
}

namespace {

std::string channelPositions(uint32_t channelCount)
{
    constexpr const char* surround[] = {"FL", "FR", "FC", "LFE", "RL", "RR"};
    if (channelCount == 1)
        return "[ MONO ]";
    std::string positions = "[";
    for (uint32_t i = 0; i < channelCount; ++i)
        positions += std::string(" ") + (channelCount <= 6 ? surround[i] : "AUX" + std::to_string(i));
    return positions + " ]";
}

NodeProperties nullDeviceProperties(const VirtualDevice& device)
{
    NodeProperties all = device.properties; // insert() does not replace them
    all.insert({{PW_KEY_NODE_NAME, device.name},
                {PW_KEY_NODE_DESCRIPTION, "Virtual " + device.name},
                {PW_KEY_MEDIA_CLASS, device.mediaClass},
                {"factory.name", "support.null-audio-sink"},
                {PW_KEY_AUDIO_CHANNELS, std::to_string(device.channelCount)},
                {"audio.position", channelPositions(device.channelCount)},
                {"monitor.channel-volumes", "false"},
                // Without a session manager, no other program configures the node's ports.
                {"adapter.auto-port-config", "{ mode = dsp monitor = true position = preserve }"}});
    return all;
}

} // namespace

pw_properties* newProperties(const NodeProperties& properties)
{
    pw_properties* all = pw_properties_new(nullptr, nullptr);
    for (const auto& [key, value] : properties)
        pw_properties_set(all, key.c_str(), value.c_str());
    return all;
}

TestClient::TestClient(const std::string& remote) : _remote(remote)
{
    static const pw_registry_events registryEvents{
        PW_VERSION_REGISTRY_EVENTS,
        [](void* data, uint32_t id, uint32_t, const char* type, uint32_t, const spa_dict* properties) {
            Global global{type, {}};
            for (uint32_t i = 0; properties && i < properties->n_items; ++i)
                global.properties[properties->items[i].key] = properties->items[i].value;
            static_cast<TestClient*>(data)->_globals[id] = std::move(global);
        },
        [](void* data, uint32_t id) { static_cast<TestClient*>(data)->_globals.erase(id); }};
    _coreEvents.version = PW_VERSION_CORE_EVENTS;
    _coreEvents.done = [](void* data, uint32_t id, int sequence) {
        if (id == PW_ID_CORE)
            static_cast<TestClient*>(data)->_lastSync = sequence;
    };
    pw_init(nullptr, nullptr);
    _loop = pw_thread_loop_new("test-client", nullptr);
    _context = pw_context_new(pw_thread_loop_get_loop(_loop),
                              newProperties({{PW_KEY_CONFIG_NAME, "client-rt.conf"}}), 0);
    pw_thread_loop_start(_loop);
    locked([&] {
        _core = pw_context_connect(_context, newProperties({{PW_KEY_REMOTE_NAME, remote}}), 0);
        if (!_core)
            return;
        pw_core_add_listener(_core, &_coreListener, &_coreEvents, this);
        _registry = pw_core_get_registry(_core, PW_VERSION_REGISTRY, 0);
        pw_registry_add_listener(_registry, &_registryListener, &registryEvents, this);
    });
    if (!_core)
        throw std::runtime_error("no server at " + remote);
    sync();
}

TestClient::~TestClient()
{
    unplugAll();
    pw_thread_loop_stop(_loop);
    if (_core) {
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(_registry));
        pw_core_disconnect(_core);
    }
    pw_context_destroy(_context);
    pw_thread_loop_destroy(_loop);
}

void TestClient::sync()
{
    const int sequence = locked([this] { return pw_core_sync(_core, PW_ID_CORE, 0); });
    if (!waitUntil([&] { return _lastSync >= sequence; }))
        throw std::runtime_error("the server does not reply");
}

bool TestClient::waitUntil(const std::function<bool()>& isTrue) const
{
    return eventually([&] { return locked(isTrue); });
}

std::vector<uint32_t> TestClient::idsOf(const std::string& type, const NodeProperties& properties) const
{
    std::vector<uint32_t> ids;
    locked([&] {
        for (const auto& [id, global] : _globals)
            if (global.type == type && std::ranges::includes(global.properties, properties))
                ids.push_back(id);
    });
    return ids;
}

uint32_t TestClient::idOf(const std::string& type, const NodeProperties& properties) const
{
    std::vector<uint32_t> ids;
    if (!eventually([&] { return !(ids = idsOf(type, properties)).empty(); }))
        throw std::runtime_error("no such object on the server: " + type);
    return ids.front();
}

uint32_t TestClient::nodeID(const std::string& nodeName) const
{
    return idOf(PW_TYPE_INTERFACE_Node, {{PW_KEY_NODE_NAME, nodeName}});
}

pw_proxy* TestClient::_create(const char* factory, const char* type, uint32_t version,
                              const NodeProperties& properties)
{
    pw_properties* all = newProperties(properties);
    void* const proxy =
        locked([&] { return pw_core_create_object(_core, factory, type, version, &all->dict, 0); });
    pw_properties_free(all);
    sync();
    return static_cast<pw_proxy*>(proxy);
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
    return _create("link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK,
                   {{PW_KEY_LINK_OUTPUT_PORT, port(outputNode, outputPort)},
                    {PW_KEY_LINK_INPUT_PORT, port(inputNode, inputPort)}});
}

void TestClient::destroy(uint32_t id) const
{
    locked([&] { pw_registry_destroy(_registry, id); });
}

void TestClient::plug(const VirtualDevice& device)
{
    _plugged[device.name] =
        _create("adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, nullDeviceProperties(device));
}

void TestClient::unplug(const std::string& name)
{
    const auto device = _plugged.extract(name);
    if (!device)
        throw std::runtime_error(name + " is not plugged");
    destroy(device.mapped());
    sync();
}

void TestClient::unplugAll()
{
    for (const auto& [name, proxy] : std::exchange(_plugged, {}))
        destroy(proxy);
}

std::string TestClient::run(const std::string& command) const
{
    FILE* const pipe = popen(("PIPEWIRE_REMOTE='" + _remote + "' " + command).c_str(), "r");
    std::string output;
    std::array<char, 4096> block{};
    while (const size_t count = std::fread(block.data(), 1, block.size(), pipe))
        output.append(block.data(), count);
    if (pclose(pipe) != 0)
        throw std::runtime_error(command + ": " + output);
    return output;
}

void TestClient::setVolumes(const std::string& nodeName, const std::vector<float>& amplitudes) const
{
    run("pw-cli set-param '" + nodeName + "' Props '{ channelVolumes: " + nlohmann::json(amplitudes).dump() +
        " }'");
}

void TestClient::setMetadata(const std::string& name, const std::string& key, const std::string& value) const
{
    run("pw-metadata -n " + name + " 0 " + key + " '" + value + "' Spa:String:JSON");
}
