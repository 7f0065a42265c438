#include "FakeCard.h"

#include <pipewire/device.h>
#include <spa/monitor/utils.h>
#include <spa/param/profile.h>
#include <spa/param/props.h>
#include <spa/param/route.h>
#include <spa/pod/filter.h>
#include <spa/pod/parser.h>
#include <stdexcept>
#include <utility>

namespace {

constexpr size_t paramSpace = 4096;

void addString(spa_pod_builder& builder, uint32_t key, const char* value)
{
    spa_pod_builder_prop(&builder, key, 0);
    spa_pod_builder_string(&builder, value);
}

void addInt(spa_pod_builder& builder, uint32_t key, uint32_t value)
{
    spa_pod_builder_prop(&builder, key, 0);
    spa_pod_builder_int(&builder, static_cast<int32_t>(value));
}

void addID(spa_pod_builder& builder, uint32_t key, uint32_t value)
{
    spa_pod_builder_prop(&builder, key, 0);
    spa_pod_builder_id(&builder, value);
}

void addIntArray(spa_pod_builder& builder, uint32_t key, int32_t value)
{
    spa_pod_builder_prop(&builder, key, 0);
    spa_pod_builder_array(&builder, sizeof value, SPA_TYPE_Int, 1, &value);
}

} // namespace

FakeCard::FakeCard(const std::string& remote, Options options)
    : _options(std::move(options)), _client(remote),
      _properties(_options.properties), _params{SPA_PARAM_INFO(SPA_PARAM_EnumProfile, SPA_PARAM_INFO_READ),
                                                SPA_PARAM_INFO(SPA_PARAM_Profile, SPA_PARAM_INFO_READWRITE),
                                                SPA_PARAM_INFO(SPA_PARAM_EnumRoute, SPA_PARAM_INFO_READ),
                                                SPA_PARAM_INFO(SPA_PARAM_Route, SPA_PARAM_INFO_READWRITE)},
      _routes{{"analog-output-speaker", "Speakers", "speaker"},
              {"analog-output-headphones", "Headphones", "headphones"},
              {"analog-input-mic", "Microphone", "mic"}}
{
    static const spa_device_methods methods{SPA_VERSION_DEVICE_METHODS, _addListener, _sync, _enumParams,
                                            _setParam};
    _properties.insert({{PW_KEY_MEDIA_CLASS, "Audio/Device"},
                        {PW_KEY_DEVICE_NAME, deviceName()},
                        {PW_KEY_DEVICE_DESCRIPTION, "Fake Card"},
                        {PW_KEY_DEVICE_API, "alsa"},
                        {PW_KEY_DEVICE_BUS, "usb"},
                        {PW_KEY_DEVICE_VENDOR_NAME, "Some Maker"},
                        {PW_KEY_DEVICE_VENDOR_ID, "0x1235"},
                        {PW_KEY_DEVICE_PRODUCT_ID, "0x8211"},
                        {"device.serial", "SER1"}});
    std::erase_if(_properties, [](const auto& property) { return property.second.empty(); });
    for (const auto& [key, value] : _properties)
        _items.push_back({key.c_str(), value.c_str()});
    _dictionary = SPA_DICT_INIT(_items.data(), static_cast<uint32_t>(_items.size()));
    _info.version = SPA_VERSION_DEVICE_INFO;
    _info.props = &_dictionary;
    _info.params = _params;
    _info.n_params = 4;
    spa_hook_list_init(&_hooks);
    _device.iface = SPA_INTERFACE_INIT(SPA_TYPE_INTERFACE_Device, SPA_VERSION_DEVICE, &methods, this);

    _client.locked([this] {
        _exported = static_cast<pw_proxy*>(
            pw_core_export(_client.core(), SPA_TYPE_INTERFACE_Device, &_dictionary, &_device, 0));
    });
    if (!_exported)
        throw std::runtime_error("the card cannot be exported");
    const uint32_t id = _client.idOf(PW_TYPE_INTERFACE_Device, {{PW_KEY_DEVICE_NAME, deviceName()}});
    _nodes.push_back(_makeNode(sinkName(), "Audio/Sink", id, 0));
    if (_options.microphone)
        _nodes.push_back(_makeNode(sourceName(), "Audio/Source/Virtual", id, 1));
    _client.sync();
}

FakeCard::~FakeCard()
{
    for (pw_proxy* node : _nodes)
        _client.destroy(node);
    _client.destroy(_exported);
    _client.sync();
}

pw_proxy* FakeCard::_makeNode(const std::string& name, const char* mediaClass, uint32_t cardID, int device)
{
    NodeProperties all = _options.nodeProperties;
    all.insert({{"factory.name", "support.null-audio-sink"},
                {PW_KEY_NODE_NAME, name},
                {PW_KEY_NODE_DESCRIPTION, "Fake Card Stereo"},
                {PW_KEY_MEDIA_CLASS, mediaClass},
                {PW_KEY_AUDIO_CHANNELS, "2"},
                {"audio.position", "[ FL FR ]"},
                {PW_KEY_DEVICE_ID, std::to_string(cardID)},
                {"card.profile.device", std::to_string(device)},
                {"device.routes", device == 0 ? "2" : "1"},
                {"monitor.channel-volumes", "false"},
                {"adapter.auto-port-config", "{ mode = dsp monitor = true position = preserve }"}});
    pw_proxy* proxy = nullptr;
    _client.locked([&] { proxy = _client.create("adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, all); });
    return proxy;
}

int FakeCard::_addListener(void* object, spa_hook* listener, const spa_device_events* events, void* data)
{
    auto* self = static_cast<FakeCard*>(object);
    spa_hook_list saved;
    spa_hook_list_isolate(&self->_hooks, &saved, listener, events, data);
    self->_emitInfo(SPA_DEVICE_CHANGE_MASK_PROPS | SPA_DEVICE_CHANGE_MASK_PARAMS);
    spa_hook_list_join(&self->_hooks, &saved);
    return 0;
}

int FakeCard::_sync(void* object, int sequence)
{
    spa_device_emit_result(&static_cast<FakeCard*>(object)->_hooks, sequence, 0, 0, nullptr);
    return 0;
}

int FakeCard::_enumParams(void* object, int sequence, uint32_t id, uint32_t start, uint32_t count,
                          const spa_pod* filter)
{
    auto* self = static_cast<FakeCard*>(object);
    for (uint32_t index = start, found = 0; found < count; ++index) {
        uint8_t space[paramSpace];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof space);
        const spa_pod* param = self->_param(builder, id, index);
        if (!param)
            break;
        uint8_t filteredSpace[paramSpace];
        spa_pod_builder filtered = SPA_POD_BUILDER_INIT(filteredSpace, sizeof filteredSpace);
        spa_result_device_params result{id, index, index + 1, nullptr};
        if (spa_pod_filter(&filtered, &result.param, param, filter) < 0)
            continue;
        spa_device_emit_result(&self->_hooks, sequence, 0, SPA_RESULT_TYPE_DEVICE_PARAMS, &result);
        ++found;
    }
    return 0;
}

const spa_pod* FakeCard::_param(spa_pod_builder& builder, uint32_t id, uint32_t index) const
{
    const uint32_t routes = _options.microphone ? 3 : 2;
    const uint32_t activeRoutes = _options.microphone ? 2 : 1;
    switch (id) {
    case SPA_PARAM_EnumProfile:
        return index < 2 ? _profile(builder, id, index) : nullptr;
    case SPA_PARAM_Profile:
        return index < 1 ? _profile(builder, id, 1) : nullptr;
    case SPA_PARAM_EnumRoute:
        return index < routes ? _route(builder, id, index) : nullptr;
    case SPA_PARAM_Route:
        return index < activeRoutes ? _route(builder, id, _activeRoutes[index]) : nullptr;
    default:
        return nullptr;
    }
}

const spa_pod* FakeCard::_profile(spa_pod_builder& builder, uint32_t id, uint32_t index) const
{
    spa_pod_frame frame;
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_ParamProfile, id);
    addInt(builder, SPA_PARAM_PROFILE_index, index);
    addString(builder, SPA_PARAM_PROFILE_name, index == 0 ? "off" : "stereo");
    addString(builder, SPA_PARAM_PROFILE_description, index == 0 ? "Off" : "Stereo");
    addID(builder, SPA_PARAM_PROFILE_available, SPA_PARAM_AVAILABILITY_yes);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
}

bool FakeCard::_isAvailable(uint32_t route) const
{
    return route != Headphones || _headphonesPlugged;
}

const spa_pod* FakeCard::_route(spa_pod_builder& builder, uint32_t id, uint32_t route) const
{
    const RouteState& state = _routes[route];
    const int32_t device = route == Microphone ? 1 : 0;
    spa_pod_frame frame;
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_ParamRoute, id);
    addInt(builder, SPA_PARAM_ROUTE_index, route);
    addID(builder, SPA_PARAM_ROUTE_direction,
          route == Microphone ? SPA_DIRECTION_INPUT : SPA_DIRECTION_OUTPUT);
    addString(builder, SPA_PARAM_ROUTE_name, state.name);
    addString(builder, SPA_PARAM_ROUTE_description, state.description);
    addID(builder, SPA_PARAM_ROUTE_available,
          _isAvailable(route) ? SPA_PARAM_AVAILABILITY_yes : SPA_PARAM_AVAILABILITY_no);
    spa_pod_frame information;
    spa_pod_builder_prop(&builder, SPA_PARAM_ROUTE_info, 0);
    spa_pod_builder_push_struct(&builder, &information);
    spa_pod_builder_int(&builder, 1);
    spa_pod_builder_string(&builder, "port.type");
    spa_pod_builder_string(&builder, state.portType);
    spa_pod_builder_pop(&builder, &information);
    addIntArray(builder, SPA_PARAM_ROUTE_profiles, 1);
    addIntArray(builder, SPA_PARAM_ROUTE_devices, device);
    if (id == SPA_PARAM_Route) {
        addInt(builder, SPA_PARAM_ROUTE_device, static_cast<uint32_t>(device));
        spa_pod_builder_prop(&builder, SPA_PARAM_ROUTE_props, 0);
        spa_pod_frame properties;
        spa_pod_builder_push_object(&builder, &properties, SPA_TYPE_OBJECT_Props, id);
        spa_pod_builder_prop(&builder, SPA_PROP_mute, 0);
        spa_pod_builder_bool(&builder, state.muted);
        spa_pod_builder_prop(&builder, SPA_PROP_channelVolumes, 0);
        spa_pod_builder_array(&builder, sizeof(float), SPA_TYPE_Float,
                              static_cast<uint32_t>(state.amplitudes.size()), state.amplitudes.data());
        spa_pod_builder_pop(&builder, &properties);
        addInt(builder, SPA_PARAM_ROUTE_profile, 1);
    }
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
}

int FakeCard::_setParam(void* object, uint32_t id, uint32_t /*flags*/, const spa_pod* param)
{
    if (id != SPA_PARAM_Route || !param)
        return -ENOENT;
    static_cast<FakeCard*>(object)->_takeRoute(param);
    return 0;
}

void FakeCard::_takeRoute(const spa_pod* param)
{
    const auto* object = reinterpret_cast<const spa_pod_object*>(param);
    const auto number = [object](uint32_t key) {
        int32_t value = -1;
        if (const spa_pod_prop* found = spa_pod_object_find_prop(object, nullptr, key))
            spa_pod_get_int(&found->value, &value);
        return static_cast<size_t>(value);
    };
    const size_t route = number(SPA_PARAM_ROUTE_index);
    const size_t device = number(SPA_PARAM_ROUTE_device);
    if (route >= _routes.size() || device > 1)
        return;
    _activeRoutes[device] = static_cast<uint32_t>(route);
    if (const spa_pod_prop* found = spa_pod_object_find_prop(object, nullptr, SPA_PARAM_ROUTE_props)) {
        const auto* properties = reinterpret_cast<const spa_pod_object*>(&found->value);
        float amplitudes[2];
        if (const spa_pod_prop* value =
                spa_pod_object_find_prop(properties, nullptr, SPA_PROP_channelVolumes))
            if (spa_pod_copy_array(&value->value, SPA_TYPE_Float, amplitudes, 2) == 2)
                _routes[route].amplitudes.assign(amplitudes, amplitudes + 2);
        if (const spa_pod_prop* value = spa_pod_object_find_prop(properties, nullptr, SPA_PROP_mute))
            spa_pod_get_bool(&value->value, &_routes[route].muted);
    }
    _changed(SPA_PARAM_Route);
}

void FakeCard::_emitInfo(uint64_t changes)
{
    _info.change_mask = changes;
    spa_device_emit_info(&_hooks, &_info);
    _info.change_mask = 0;
}

void FakeCard::_changed(uint32_t paramID)
{
    for (spa_param_info& info : _params)
        if (info.id == paramID)
            info.flags ^= SPA_PARAM_INFO_SERIAL; // or nobody asks for the new value
    _emitInfo(SPA_DEVICE_CHANGE_MASK_PARAMS);
    _client.changed();
}

void FakeCard::setHeadphonesPlugged(bool plugged)
{
    _client.locked([&] {
        _headphonesPlugged = plugged;
        _changed(SPA_PARAM_EnumRoute);
    });
}

void FakeCard::setRoute(Route route)
{
    _client.locked([&] {
        _activeRoutes[route == Microphone ? 1 : 0] = route;
        _changed(SPA_PARAM_Route);
    });
}

void FakeCard::setVolumes(Route route, std::vector<float> amplitudes)
{
    _client.locked([&] {
        _routes[route].amplitudes = std::move(amplitudes);
        _changed(SPA_PARAM_Route);
    });
}

void FakeCard::setMuted(Route route, bool muted)
{
    _client.locked([&] {
        _routes[route].muted = muted;
        _changed(SPA_PARAM_Route);
    });
}

FakeCard::Route FakeCard::outputRoute() const
{
    return static_cast<Route>(_activeRoutes[0]);
}

std::vector<float> FakeCard::volumes(Route route) const
{
    return _routes[route].amplitudes;
}

bool FakeCard::isMuted(Route route) const
{
    return _routes[route].muted;
}

bool FakeCard::waitUntil(const std::function<bool(const FakeCard&)>& isTrue) const
{
    return _client.waitUntil([&] { return isTrue(*this); });
}
