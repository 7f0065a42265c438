#include "NodeView.h"

#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>

NodeView::NodeView(TestClient& client, uint32_t nodeID) : _client(client)
{
    static const pw_node_events events{PW_VERSION_NODE_EVENTS, nullptr, _param};
    _client.locked([&] {
        _proxy = _client.bind(nodeID, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE);
        pw_proxy_add_object_listener(_proxy, &_listener, &events, this);
        uint32_t wanted = SPA_PARAM_Props;
        pw_node_subscribe_params(reinterpret_cast<pw_node*>(_proxy), &wanted, 1);
    });
    _client.sync();
}

NodeView::~NodeView()
{
    _client.locked([this] {
        spa_hook_remove(&_listener);
        pw_proxy_destroy(_proxy);
    });
}

void NodeView::_param(void* data, int /*sequence*/, uint32_t id, uint32_t /*index*/, uint32_t /*next*/,
                      const spa_pod* param)
{
    auto* self = static_cast<NodeView*>(data);
    if (id != SPA_PARAM_Props)
        return;
    const auto* object = reinterpret_cast<const spa_pod_object*>(param);
    if (const spa_pod_prop* volumes = spa_pod_object_find_prop(object, nullptr, SPA_PROP_channelVolumes)) {
        self->_volumes.resize(64);
        self->_volumes.resize(spa_pod_copy_array(&volumes->value, SPA_TYPE_Float, self->_volumes.data(), 64));
    }
    if (const spa_pod_prop* mute = spa_pod_object_find_prop(object, nullptr, SPA_PROP_mute))
        spa_pod_get_bool(&mute->value, &self->_muted);
    self->_client.changed();
}

std::vector<float> NodeView::volumes() const
{
    std::vector<float> all;
    _client.locked([&] { all = _volumes; });
    return all;
}

bool NodeView::isMuted() const
{
    bool muted = false;
    _client.locked([&] { muted = _muted; });
    return muted;
}

void NodeView::setVolumes(const std::vector<float>& amplitudes)
{
    uint8_t space[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof space);
    spa_pod_frame frame;
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Props, SPA_PARAM_Props);
    spa_pod_builder_prop(&builder, SPA_PROP_channelVolumes, 0);
    spa_pod_builder_array(&builder, sizeof(float), SPA_TYPE_Float, static_cast<uint32_t>(amplitudes.size()),
                          amplitudes.data());
    const auto* param = static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
    _client.locked([&] { pw_node_set_param(reinterpret_cast<pw_node*>(_proxy), SPA_PARAM_Props, 0, param); });
    _client.sync();
}

void NodeView::setMuted(bool muted)
{
    uint8_t space[128];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof space);
    spa_pod_frame frame;
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Props, SPA_PARAM_Props);
    spa_pod_builder_prop(&builder, SPA_PROP_mute, 0);
    spa_pod_builder_bool(&builder, muted);
    const auto* param = static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
    _client.locked([&] { pw_node_set_param(reinterpret_cast<pw_node*>(_proxy), SPA_PARAM_Props, 0, param); });
    _client.sync();
}

MetadataView::MetadataView(TestClient& client, const std::string& name) : _client(client)
{
    static const pw_metadata_events events{PW_VERSION_METADATA_EVENTS, _property};
    const uint32_t id = client.idOf(PW_TYPE_INTERFACE_Metadata, {{PW_KEY_METADATA_NAME, name}});
    _client.locked([&] {
        _proxy = _client.bind(id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA);
        pw_proxy_add_object_listener(_proxy, &_listener, &events, this);
    });
    _client.sync();
}

MetadataView::~MetadataView()
{
    _client.locked([this] {
        spa_hook_remove(&_listener);
        pw_proxy_destroy(_proxy);
    });
}

int MetadataView::_property(void* data, uint32_t subject, const char* key, const char* /*type*/,
                            const char* value)
{
    auto* self = static_cast<MetadataView*>(data);
    if (subject != PW_ID_CORE || !key)
        return 0;
    if (value)
        self->_values[key] = value;
    else
        self->_values.erase(key);
    self->_client.changed();
    return 0;
}

std::string MetadataView::value(const std::string& key) const
{
    std::string found;
    _client.locked([&] {
        const auto entry = _values.find(key);
        if (entry != _values.end())
            found = entry->second;
    });
    return found;
}

bool MetadataView::waitForValue(const std::string& key, const std::string& json) const
{
    return _client.waitUntil([&] {
        const auto entry = _values.find(key);
        return entry != _values.end() && entry->second == json;
    });
}

void MetadataView::set(const std::string& key, const std::string& json)
{
    _client.locked([&] {
        pw_metadata_set_property(reinterpret_cast<pw_metadata*>(_proxy), PW_ID_CORE, key.c_str(),
                                 "Spa:String:JSON", json.c_str());
    });
    _client.sync();
}
