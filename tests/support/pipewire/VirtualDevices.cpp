#include "VirtualDevices.h"

namespace {

bool isSink(const VirtualDevice& device)
{
    return device.mediaClass.starts_with("Audio/Sink");
}

NodeProperties nodeProperties(const VirtualDevice& device)
{
    NodeProperties all{{PW_KEY_NODE_NAME, device.name},
                       {PW_KEY_NODE_DESCRIPTION, "Virtual " + device.name},
                       {PW_KEY_MEDIA_CLASS, device.mediaClass}};
    for (const auto& [key, value] : device.properties)
        all[key] = value;
    return all;
}

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
    NodeProperties all = nodeProperties(device);
    all.insert({{"factory.name", "support.null-audio-sink"},
                {PW_KEY_AUDIO_CHANNELS, std::to_string(device.channelCount)},
                {"audio.position", channelPositions(device.channelCount)},
                {"monitor.channel-volumes", "false"},
                // Nobody configures the ports of a node where no session manager runs.
                {"adapter.auto-port-config", "{ mode = dsp monitor = true position = preserve }"}});
    return all;
}

} // namespace

VirtualDevices::~VirtualDevices()
{
    unplugAll();
}

void VirtualDevices::plug(const VirtualDevice& device)
{
    const NodeProperties all = nullDeviceProperties(device);
    pw_proxy* proxy = nullptr;
    _client.locked([&] { proxy = _client.create("adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, all); });
    _plugged.emplace(device.name, proxy);
    _client.sync();
}

void VirtualDevices::plugBareNode(const VirtualDevice& device)
{
    pw_filter* filter = nullptr;
    _client.locked([&] {
        filter = pw_filter_new(_client.core(), device.name.c_str(), newProperties(nodeProperties(device)));
        for (uint32_t i = 0; i < device.channelCount; ++i)
            pw_filter_add_port(filter, isSink(device) ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT,
                               PW_FILTER_PORT_FLAG_MAP_BUFFERS, 1,
                               newProperties({{PW_KEY_FORMAT_DSP, "32 bit float mono audio"},
                                              {PW_KEY_PORT_NAME, "port_" + std::to_string(i)}}),
                               nullptr, 0);
        pw_filter_connect(filter, PW_FILTER_FLAG_NONE, nullptr, 0);
    });
    _bare.emplace(device.name, filter);
    _client.waitUntil([&] { return pw_filter_get_state(filter, nullptr) >= PW_FILTER_STATE_PAUSED; });
    _client.sync();
}

void VirtualDevices::plugExported(const VirtualDevice& device)
{
    Exported exported{};
    _client.locked([&] {
        pw_impl_factory* factory = pw_context_find_factory(_client.context(), "adapter");
        exported.node = static_cast<pw_impl_node*>(
            pw_impl_factory_create_object(factory, nullptr, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE,
                                          newProperties(nullDeviceProperties(device)), 0));
        pw_impl_node_set_active(exported.node, true);
        exported.proxy = static_cast<pw_proxy*>(
            pw_core_export(_client.core(), PW_TYPE_INTERFACE_Node, nullptr, exported.node, 0));
    });
    _exported[device.name] = exported;
    _client.nodeID(device.name);
    _client.sync();
}

void VirtualDevices::change(const std::string& name, const NodeProperties& properties)
{
    pw_properties* all = newProperties(properties);
    _client.locked([&] { pw_impl_node_update_properties(_exported.at(name).node, &all->dict); });
    pw_properties_free(all);
    _client.sync();
}

void VirtualDevices::unplug(const std::string& name)
{
    if (const auto exported = _exported.find(name); exported != _exported.end()) {
        _client.locked([&] {
            pw_proxy_destroy(exported->second.proxy);
            pw_impl_node_destroy(exported->second.node);
        });
        _exported.erase(exported);
        return _client.sync();
    }
    if (const auto bare = _bare.find(name); bare != _bare.end()) {
        _client.locked([&] { pw_filter_destroy(bare->second); });
        _bare.erase(bare);
    } else if (auto plugged = _plugged.upper_bound(name); plugged != _plugged.begin()) {
        --plugged;
        if (plugged->first == name) {
            _client.destroy(plugged->second);
            _plugged.erase(plugged);
        }
    }
    _client.sync();
}

void VirtualDevices::unplugAll()
{
    _client.locked([this] {
        for (const auto& [name, proxy] : _plugged)
            pw_proxy_destroy(proxy);
        for (const auto& [name, filter] : _bare)
            pw_filter_destroy(filter);
        for (const auto& [name, exported] : _exported) {
            pw_proxy_destroy(exported.proxy);
            pw_impl_node_destroy(exported.node);
        }
    });
    _exported.clear();
    _plugged.clear();
    _bare.clear();
}
