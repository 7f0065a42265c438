#pragma once

#include "NodeView.h"
#include "TestClient.h"

#include <map>
#include <memory>
#include <pipewire/filter.h>
#include <pipewire/impl.h>
#include <string>
#include <vector>

/// What a virtual device is made of. The defaults are a stereo sink that follows the graph's rate.
struct VirtualDevice {
    std::string name;
    std::string mediaClass = "Audio/Sink"; ///< or Audio/Source/Virtual, Audio/Duplex
    uint32_t channelCount = 2;             ///< at most 64, but for a bare node
    NodeProperties properties{};           ///< on top of what the others say, and instead of it
};

/// Plugs virtual devices into a server, and sees and changes them as any other client may.
/// Threads: one. All devices go with it.
class VirtualDevices {
public:
    explicit VirtualDevices(const std::string& remote) : _client(remote) {}
    ~VirtualDevices();
    VirtualDevices(const VirtualDevices&) = delete;
    VirtualDevices& operator=(const VirtualDevices&) = delete;

    /// Returns once the server has the device with all its ports.
    void plug(const VirtualDevice& device);
    /// The same, for a node whose ports are made by this process: none, or more than a server's own device can
    /// have. It takes and gives silence.
    void plugBareNode(const VirtualDevice& device);
    /// The same as plug(), for a device that lives in this process as a session manager's do, and can change what it
    /// says of itself.
    void plugExported(const VirtualDevice& device);
    /// Changes properties of an exported device.
    void change(const std::string& name, const NodeProperties& properties);
    /// Takes away the device plugged last under this name. Returns once the server has.
    void unplug(const std::string& name);
    void unplugAll();

    /// The device of this name, to see and change its volumes.
    NodeView view(const std::string& name) { return NodeView(_client, _client.nodeID(name)); }
    TestClient& client() noexcept { return _client; }

private:
    struct Exported {
        pw_impl_node* node;
        pw_proxy* proxy;
    };

    TestClient _client;
    std::multimap<std::string, pw_proxy*> _plugged;
    std::multimap<std::string, pw_filter*> _bare;
    std::map<std::string, Exported> _exported;
};
