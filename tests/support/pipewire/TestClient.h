#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <pipewire/pipewire.h>
#include <string>
#include <vector>

using NodeProperties = std::map<std::string, std::string>;

/// Returns the dictionary in PipeWire's type. The function it is passed to must free it.
pw_properties* newProperties(const NodeProperties& properties);

/// Description of a virtual device. The default is a stereo sink that follows the graph's rate.
struct VirtualDevice {
    std::string name;
    std::string mediaClass = "Audio/Sink"; ///< or Audio/Source/Virtual, Audio/Duplex
    uint32_t channelCount = 2;             ///< at most 64
    NodeProperties properties{};           ///< added to the implied properties; takes precedence
};

/// Another client of a PipeWire server, with its own loop thread. It plugs virtual devices in and changes the
/// server's objects as any client may.
/// Threads: any, one at a time. Everything it has created disappears with it.
class TestClient {
public:
    /// Connects to the server at `remote`. Throws std::runtime_error on failure.
    explicit TestClient(const std::string& remote);
    ~TestClient();
    TestClient(const TestClient&) = delete;

    // -- The connection

    /// Runs `work` with the loop locked, and returns its result.
    auto locked(const auto& work) const
    {
        pw_thread_loop_lock(_loop);
        const std::unique_ptr<pw_thread_loop, decltype(&pw_thread_loop_unlock)> unlocker(
            _loop, pw_thread_loop_unlock);
        return work();
    }
    /// Returns once the server has handled every earlier request.
    void sync();
    /// Waits until `isTrue` holds, evaluated with the loop locked. Returns false on timeout.
    bool waitUntil(const std::function<bool()>& isTrue) const;
    pw_core* core() const noexcept { return _core; }

    // -- The server's objects

    /// Returns the ids of all objects of this type (PW_TYPE_INTERFACE_…) with these properties.
    std::vector<uint32_t> idsOf(const std::string& type, const NodeProperties& properties) const;
    /// Returns the first of them, waiting until one exists. Throws std::runtime_error on timeout.
    uint32_t idOf(const std::string& type, const NodeProperties& properties) const;
    uint32_t nodeID(const std::string& nodeName) const;
    /// Must be called with the loop locked.
    pw_proxy* bind(uint32_t id, const char* type, uint32_t version);
    /// Links an output port to an input port, each given by its node and its port name.
    pw_proxy* link(uint32_t outputNode, const std::string& outputPort, uint32_t inputNode,
                   const std::string& inputPort);
    void destroy(pw_proxy* proxy) const
    {
        locked([&] { pw_proxy_destroy(proxy); });
    }
    /// Destroys the object of any client.
    void destroy(uint32_t id) const;

    // -- Virtual devices. Each function returns once the server has made the change.

    void plug(const VirtualDevice& device);
    void unplug(const std::string& name);
    void unplugAll();

    // -- PipeWire's own programs, run on this server

    /// Runs a command, such as "pw-cli destroy 42". Returns its output. Throws std::runtime_error on failure.
    std::string run(const std::string& command) const;
    /// Linear amplitudes, one per channel of the node.
    void setVolumes(const std::string& nodeName, const std::vector<float>& amplitudes) const;
    void setMetadata(const std::string& name, const std::string& key, const std::string& value) const;

private:
    struct Global {
        std::string type;
        NodeProperties properties;
    };
    pw_proxy* _create(const char* factory, const char* type, uint32_t version,
                      const NodeProperties& properties);

    const std::string _remote;
    pw_thread_loop* _loop = nullptr;
    pw_context* _context = nullptr;
    pw_core* _core = nullptr;
    pw_registry* _registry = nullptr;
    pw_core_events _coreEvents{};
    spa_hook _coreListener{}, _registryListener{};
    std::map<uint32_t, Global> _globals;
    int _lastSync = -1; // sequence number of the last sync that the server has reported
    std::map<std::string, pw_proxy*> _plugged; // by name
};
