#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <pipewire/pipewire.h>
#include <string>
#include <vector>

using NodeProperties = std::map<std::string, std::string>;

/// A plain PipeWire client with a loop thread of its own: what the tests make devices with, and the other client
/// whose view and doings the library's are compared with.
/// Threads: any, one at a time.
class TestClient {
public:
    /// Connects to the server listening at `remote`. Throws std::runtime_error when it cannot.
    explicit TestClient(const std::string& remote);
    ~TestClient();
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    /// Runs `work` with the loop held still.
    void locked(const std::function<void()>& work) const;
    /// Returns once the server has handled everything asked of it before.
    void sync();
    /// Waits until `isTrue`, asked after every event with the loop held. False when `patience` runs out.
    bool waitUntil(const std::function<bool()>& isTrue,
                   std::chrono::seconds patience = std::chrono::seconds(20)) const;

    /// The id of the one object of this type (PW_TYPE_INTERFACE_…) with these properties, waiting for it.
    /// Throws std::runtime_error when it does not come.
    uint32_t idOf(const std::string& type, const NodeProperties& properties);
    uint32_t nodeID(const std::string& nodeName);
    /// The ids of all objects of this type with these properties.
    std::vector<uint32_t> idsOf(const std::string& type, const NodeProperties& properties) const;
    /// A property the registry told of an object; empty when it told none.
    std::string property(uint32_t id, const std::string& key) const;

    /// Creates an object with a factory of the server. With the loop held.
    pw_proxy* create(const char* factory, const char* type, uint32_t version,
                     const NodeProperties& properties);
    /// With the loop held.
    pw_proxy* bind(uint32_t id, const char* type, uint32_t version);
    /// Links an output port to an input port, each named by its node and its port name.
    pw_proxy* link(uint32_t outputNode, const std::string& outputPort, uint32_t inputNode,
                   const std::string& inputPort);
    /// Destroys what create(), bind() or link() answered.
    void destroy(pw_proxy* proxy);

    // -- What any client may do to others' objects; each returns once the server has done it

    void destroyObject(uint32_t id);
    /// SPA_NODE_COMMAND_…
    void commandNode(uint32_t nodeID, uint32_t command);
    /// What the other client may do with an object: PW_PERM_…
    void permit(uint32_t clientID, uint32_t objectID, uint32_t permissions);

    pw_core* core() const noexcept { return _core; }
    pw_context* context() const noexcept { return _context; }
    pw_thread_loop* loop() const noexcept { return _loop; }
    /// Wakes waitUntil(). On the loop.
    void changed() const { pw_thread_loop_signal(_loop, false); }

private:
    struct Global {
        std::string type;
        NodeProperties properties;
    };
    static void _done(void* data, uint32_t id, int sequence);
    static void _global(void* data, uint32_t id, uint32_t permissions, const char* type, uint32_t version,
                        const spa_dict* properties);
    static void _globalRemove(void* data, uint32_t id);
    std::vector<uint32_t> _find(const std::string& type, const NodeProperties& properties) const;

    pw_thread_loop* _loop = nullptr;
    pw_context* _context = nullptr;
    pw_core* _core = nullptr;
    pw_registry* _registry = nullptr;
    spa_hook _coreListener{};
    spa_hook _registryListener{};
    std::map<uint32_t, Global> _globals;
    int _pendingSync = -1;
    bool _synced = false;
};

/// The dictionary as PipeWire takes it; the callee that is given it frees it.
pw_properties* newProperties(const NodeProperties& properties);
