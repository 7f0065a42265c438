#include "FakeCard.h"

#include <spa/monitor/utils.h>
#include <spa/param/profile.h>
#include <spa/param/props.h>
#include <spa/param/route.h>
#include <spa/pod/parser.h>

namespace {

constexpr struct {
    const char *name, *description, *portType;
} routes[] = {{"analog-output-speaker", "Speakers", "speaker"},
              {"analog-output-headphones", "Headphones", "headphones"},
              {"analog-input-mic", "Microphone", "mic"}};

constexpr int32_t profile = 1;

} // namespace

FakeCard::FakeCard(const std::string& remote, Options options)
    : _options(std::move(options)),
      _client(remote), _params{SPA_PARAM_INFO(SPA_PARAM_Profile, SPA_PARAM_INFO_READWRITE),
                               SPA_PARAM_INFO(SPA_PARAM_EnumRoute, SPA_PARAM_INFO_READ),
                               SPA_PARAM_INFO(SPA_PARAM_Route, SPA_PARAM_INFO_READWRITE)}
{
    static const spa_device_methods methods{SPA_VERSION_DEVICE_METHODS, _addListener, _sync, _enumParams,
                                            _setParam};
    NodeProperties properties = _options.properties;
    properties.insert({{PW_KEY_MEDIA_CLASS, "Audio/Device"},
                       {PW_KEY_DEVICE_NAME, deviceName()},
                       {PW_KEY_DEVICE_DESCRIPTION, "Fake Card"},
                       {PW_KEY_DEVICE_API, "alsa"},
                       {PW_KEY_DEVICE_BUS, "usb"},
                       {PW_KEY_DEVICE_VENDOR_NAME, "Some Maker"},
                       {PW_KEY_DEVICE_VENDOR_ID, "0x1235"},
                       {PW_KEY_DEVICE_PRODUCT_ID, "0x8211"},
                       {"device.serial", "SER1"}});
    _properties = newProperties(properties);
    _info.version = SPA_VERSION_DEVICE_INFO;
    _info.props = &_properties->dict;
    _info.params = _params;
    _info.n_params = 3;
    spa_hook_list_init(&_hooks);
    _device.iface = SPA_INTERFACE_INIT(SPA_TYPE_INTERFACE_Device, SPA_VERSION_DEVICE, &methods, this);

    _client.locked([this] {
        _exported = static_cast<pw_proxy*>(
            pw_core_export(_client.core(), SPA_TYPE_INTERFACE_Device, &_properties->dict, &_device, 0));
    });
    const uint32_t id = _client.idOf(PW_TYPE_INTERFACE_Device, {{PW_KEY_DEVICE_NAME, deviceName()}});
    for (int device = 0; device < (_options.microphone ? 2 : 1); ++device)
        _client.plug({.name = device == 0 ? sinkName() : "alsa_input." + _options.name + ".stereo",
                      .mediaClass = device == 0 ? "Audio/Sink" : "Audio/Source/Virtual",
                      .properties = {{PW_KEY_NODE_DESCRIPTION, "Fake Card Stereo"},
                                     {PW_KEY_DEVICE_ID, std::to_string(id)},
                                     {"card.profile.device", std::to_string(device)},
                                     {"device.routes", device == 0 ? "2" : "1"}}});
}

FakeCard::~FakeCard()
{
    _client.unplugAll();
    _client.destroy(_exported);
    _client.sync();
    pw_properties_free(_properties);
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
                          const spa_pod* /*filter*/)
{
    auto* self = static_cast<FakeCard*>(object);
    for (uint32_t index = start; index - start < count; ++index) {
        uint8_t space[4096];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof space);
        spa_pod* param = self->_param(builder, id, index);
        if (!param)
            break;
        const spa_result_device_params result{id, index, index + 1, param};
        spa_device_emit_result(&self->_hooks, sequence, 0, SPA_RESULT_TYPE_DEVICE_PARAMS, &result);
    }
    return 0;
}

spa_pod* FakeCard::_param(spa_pod_builder& builder, uint32_t id, uint32_t index) const
{
    const uint32_t directions = _options.microphone ? 2 : 1;
    switch (id) {
    case SPA_PARAM_Profile:
        return index > 0 ? nullptr
                         : static_cast<spa_pod*>(spa_pod_builder_add_object(
                               &builder, SPA_TYPE_OBJECT_ParamProfile, id, SPA_PARAM_PROFILE_index,
                               SPA_POD_Int(profile), SPA_PARAM_PROFILE_name, SPA_POD_String("stereo")));
    case SPA_PARAM_EnumRoute:
        return index < 1 + directions ? _route(builder, id, index) : nullptr;
    case SPA_PARAM_Route:
        return index < directions ? _route(builder, id, _state.activeRoutes[index]) : nullptr;
    default:
        return nullptr;
    }
}

spa_pod* FakeCard::_route(spa_pod_builder& builder, uint32_t id, uint32_t route) const
{
    const int32_t device = route == Microphone ? 1 : 0;
    const bool isAvailable = route != Headphones || _state.headphonesPlugged;
    spa_pod_frame frame;
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_ParamRoute, id);
    spa_pod_builder_add(&builder, SPA_PARAM_ROUTE_index, SPA_POD_Int(route), SPA_PARAM_ROUTE_direction,
                        SPA_POD_Id(device == 1 ? SPA_DIRECTION_INPUT : SPA_DIRECTION_OUTPUT),
                        SPA_PARAM_ROUTE_name, SPA_POD_String(routes[route].name), SPA_PARAM_ROUTE_description,
                        SPA_POD_String(routes[route].description), SPA_PARAM_ROUTE_available,
                        SPA_POD_Id(isAvailable ? SPA_PARAM_AVAILABILITY_yes : SPA_PARAM_AVAILABILITY_no),
                        SPA_PARAM_ROUTE_profiles, SPA_POD_Array(sizeof profile, SPA_TYPE_Int, 1, &profile),
                        SPA_PARAM_ROUTE_devices, SPA_POD_Array(sizeof device, SPA_TYPE_Int, 1, &device), 0);
    spa_pod_frame information;
    spa_pod_builder_prop(&builder, SPA_PARAM_ROUTE_info, 0);
    spa_pod_builder_push_struct(&builder, &information);
    spa_pod_builder_add(&builder, SPA_POD_Int(2), SPA_POD_String("port.group"), SPA_POD_String("legacy"),
                        SPA_POD_String("port.type"), SPA_POD_String(routes[route].portType), nullptr);
    spa_pod_builder_pop(&builder, &information);
    if (id == SPA_PARAM_Route) {
        spa_pod_builder_add(&builder, SPA_PARAM_ROUTE_device, SPA_POD_Int(device), SPA_PARAM_ROUTE_profile,
                            SPA_POD_Int(profile), 0);
        spa_pod_builder_prop(&builder, SPA_PARAM_ROUTE_props, 0);
        spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_Props, id, SPA_PROP_mute,
                                   SPA_POD_Bool(_state.muted[route]), SPA_PROP_channelVolumes,
                                   SPA_POD_Array(sizeof(float), SPA_TYPE_Float, 2, _state.amplitudes[route]));
    }
    return static_cast<spa_pod*>(spa_pod_builder_pop(&builder, &frame));
}

int FakeCard::_setParam(void* object, uint32_t id, uint32_t /*flags*/, const spa_pod* param)
{
    auto* self = static_cast<FakeCard*>(object);
    State& state = self->_state;
    uint32_t route = 0, device = 0;
    const spa_pod* properties = nullptr;
    const spa_pod* volumes = nullptr;
    if (id != SPA_PARAM_Route || !param ||
        spa_pod_parse_object(param, SPA_TYPE_OBJECT_ParamRoute, nullptr, SPA_PARAM_ROUTE_index,
                             SPA_POD_Int(&route), SPA_PARAM_ROUTE_device, SPA_POD_Int(&device),
                             SPA_PARAM_ROUTE_props, SPA_POD_OPT_Pod(&properties)) < 0 ||
        route >= std::size(routes) || device > 1)
        return -EINVAL;
    state.activeRoutes[device] = route;
    if (properties)
        spa_pod_parse_object(properties, SPA_TYPE_OBJECT_Props, nullptr, SPA_PROP_mute,
                             SPA_POD_OPT_Bool(&state.muted[route]), SPA_PROP_channelVolumes,
                             SPA_POD_OPT_Pod(&volumes));
    if (volumes)
        spa_pod_copy_array(volumes, SPA_TYPE_Float, state.amplitudes[route], 2);
    self->_changed();
    return 0;
}

void FakeCard::_emitInfo(uint64_t changes)
{
    _info.change_mask = changes;
    spa_device_emit_info(&_hooks, &_info);
    _info.change_mask = 0;
}

void FakeCard::_changed()
{
    for (spa_param_info& info : _params)
        if (info.id == SPA_PARAM_Route || info.id == SPA_PARAM_EnumRoute)
            info.flags ^= SPA_PARAM_INFO_SERIAL; // otherwise clients do not read the new value
    _emitInfo(SPA_DEVICE_CHANGE_MASK_PARAMS);
    _client.changed();
}

void FakeCard::change(const std::function<void(State&)>& change)
{
    _client.locked([&] {
        change(_state);
        _changed();
    });
}

bool FakeCard::waitUntil(const std::function<bool(const State&)>& isTrue) const
{
    return _client.waitUntil([&] { return isTrue(_state); });
}
