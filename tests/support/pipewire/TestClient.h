#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <pipewire/filter.h>
#include <pipewire/impl.h>
#include <pipewire/pipewire.h>
#include <string>
#include <vector>

using NodeProperties = std::map<std::string, std::string>;

/// The dictionary as PipeWire takes it; the callee that is given it frees it.
pw_properties* newProperties(const NodeProperties& properties);

/// What a virtual device is made of. The defaults are a stereo sink that follows the graph's rate.
struct VirtualDevice {
    std::string name;
    std::string mediaClass = "Audio/Sink"; ///< or Audio/Source/Virtual, Audio/Duplex
    uint32_t channelCount = 2;             ///< at most 64, but for a bare node
    NodeProperties properties{};           ///< on top of what the others imply, and instead of it
};

/// Another client of a PipeWire server, with a loop thread of its own: it plugs virtual devices in, and does to the
/// objects of the server what any client may do.
/// Threads: any, one at a time. All that it has made disappears with it.
class TestClient {
public:
    /// Connects to the server listening at `remote`. Throws std::runtime_error when it cannot.
    explicit TestClient(const std::string& remote);
    ~TestClient();
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    // -- The connection

    /// Runs `work` with the loop stopped.
    void locked(const std::function<void()>& work) const;
    /// Returns once the server has handled every earlier request.
    void sync();
    /// Waits until `isTrue`, evaluated after every event with the loop stopped. False when it never is.
    bool waitUntil(const std::function<bool()>& isTrue) const;
    /// Wakes waitUntil(). On the loop.
    void changed() const { pw_thread_loop_signal(_loop, false); }
    pw_core* core() const noexcept { return _core; }

    // -- The server's objects

    /// The ids of all objects of this type (PW_TYPE_INTERFACE_…) with these properties.
    std::vector<uint32_t> idsOf(const std::string& type, const NodeProperties& properties) const;
    /// The first of them, waiting for it. Throws std::runtime_error when there is none.
    uint32_t idOf(const std::string& type, const NodeProperties& properties) const;
    uint32_t nodeID(const std::string& nodeName) const;
    /// With the loop stopped.
    pw_proxy* bind(uint32_t id, const char* type, uint32_t version);
    /// Links an output port to an input port, each named by its node and its port name.
    pw_proxy* link(uint32_t outputNode, const std::string& outputPort, uint32_t inputNode,
                   const std::string& inputPort);
    void destroy(pw_proxy* proxy);

    // -- Virtual devices. Each function returns once the server has made the change.

    void plug(const VirtualDevice& device);
    /// The same, for a node whose ports this process makes: none, or more than a server's own device can have. It takes
    /// and gives silence.
    void plugBareNode(const VirtualDevice& device);
    /// The same as plug(), for a device that lives in this process as a session manager's do, and can change its
    /// properties.
    void plugExported(const VirtualDevice& device);
    /// Changes properties of an exported device.
    void change(const std::string& name, const NodeProperties& properties);
    /// Removes the device plugged last under this name.
    void unplug(const std::string& name);
    void unplugAll();

    // -- What PipeWire's own programs do on this server

    /// Runs "pw-cli destroy 42". Returns its output.
    std::string run(const std::string& command) const;
    /// Linear amplitudes, one per channel of the node.
    void setVolumes(const std::string& nodeName, const std::vector<float>& amplitudes) const;
    void setMetadata(const std::string& name, const std::string& key, const std::string& value) const;

private:
    struct Global {
        std::string type;
        NodeProperties properties;
    };
    struct Plugged {
        std::string name;
        pw_proxy* proxy = nullptr;
        pw_filter* filter = nullptr;
        pw_impl_node* node = nullptr;
    };
    static void _done(void* data, uint32_t id, int sequence);
    static void _global(void* data, uint32_t id, uint32_t permissions, const char* type, uint32_t version,
                        const spa_dict* properties);
    static void _globalRemove(void* data, uint32_t id);
    pw_proxy* _create(const char* factory, const char* type, uint32_t version,
                      const NodeProperties& properties);
    std::vector<uint32_t> _find(const std::string& type, const NodeProperties& properties) const;
    void _destroy(const Plugged& plugged) const;

    const std::string _remote;
    pw_thread_loop* _loop = nullptr;
    pw_context* _context = nullptr;
    pw_core* _core = nullptr;
    pw_registry* _registry = nullptr;
    spa_hook _coreListener{}, _registryListener{};
    std::map<uint32_t, Global> _globals;
    int _pendingSync = -1;
    bool _synced = false;
    std::vector<Plugged> _plugged;
};
