#include "FakeCard.h"

#include <nlohmann/json.hpp>
#include <spa/monitor/utils.h>
#include <spa/param/type-info.h>
#include <spa/pod/parser.h>
#include <spa/utils/json-pod.h>

namespace {

constexpr struct {
    const char *name, *description, *portType;
} routes[] = {{"analog-output-speaker", "Speakers", "speaker"},
              {"analog-output-headphones", "Headphones", "headphones"},
              {"analog-input-mic", "Microphone", "mic"}};

constexpr int32_t profile = 1;

/// Describes a route as PipeWire's own programs write it; an active one with its volume.
nlohmann::json describe(uint32_t route, const FakeCard::State& state, bool isActive)
{
    const uint32_t device = route == FakeCard::Microphone ? 1 : 0;
    const bool isAvailable = route != FakeCard::Headphones || state.headphonesPlugged;
    nlohmann::json all{{"index", route},
                       {"direction", device == 1 ? "Input" : "Output"},
                       {"name", routes[route].name},
                       {"description", routes[route].description},
                       {"available", isAvailable ? "yes" : "no"},
                       {"profiles", {profile}},
                       {"devices", {device}},
                       {"info", {2, "port.group", "legacy", "port.type", routes[route].portType}}};
    if (isActive)
        all.update({{"device", device},
                    {"profile", profile},
                    {"props", {{"mute", state.muted[route]}, {"channelVolumes", state.amplitudes[route]}}}});
    return all;
}

} // namespace

FakeCard::FakeCard(const std::string& remote, Options options)
    : _options(std::move(options)), _params{SPA_PARAM_INFO(SPA_PARAM_Profile, SPA_PARAM_INFO_READWRITE),
                                            SPA_PARAM_INFO(SPA_PARAM_EnumRoute, SPA_PARAM_INFO_READ),
                                            SPA_PARAM_INFO(SPA_PARAM_Route, SPA_PARAM_INFO_READWRITE)},
      _client(remote)
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
    _properties.reset(newProperties(properties));
    _info.version = SPA_VERSION_DEVICE_INFO;
    _info.props = &_properties->dict;
    _info.params = _params;
    _info.n_params = 3;
    _info.change_mask = SPA_DEVICE_CHANGE_MASK_PROPS | SPA_DEVICE_CHANGE_MASK_PARAMS;
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

int FakeCard::_addListener(void* object, spa_hook* listener, const spa_device_events* events, void* data)
{
    auto* self = static_cast<FakeCard*>(object);
    spa_hook_list saved;
    spa_hook_list_isolate(&self->_hooks, &saved, listener, events, data);
    self->_emitInfo();
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
        const std::string text = self->_param(id, index);
        uint8_t space[4096];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof space);
        if (spa_json_to_pod(&builder, 0, spa_debug_type_find(spa_type_param, id), text.data(),
                            static_cast<int>(text.size())) < 0)
            break;
        const spa_result_device_params result{id, index, index + 1, spa_pod_builder_deref(&builder, 0)};
        spa_device_emit_result(&self->_hooks, sequence, 0, SPA_RESULT_TYPE_DEVICE_PARAMS, &result);
    }
    return 0;
}

std::string FakeCard::_param(uint32_t id, uint32_t index) const
{
    const uint32_t directions = _options.microphone ? 2 : 1;
    if (id == SPA_PARAM_Profile && index == 0)
        return nlohmann::json{{"index", profile}, {"name", "stereo"}}.dump();
    if (id == SPA_PARAM_EnumRoute && index < 1 + directions)
        return describe(index, _state, false).dump();
    if (id == SPA_PARAM_Route && index < directions)
        return describe(_state.activeRoutes[index], _state, true).dump();
    return {};
}

int FakeCard::_setParam(void* object, uint32_t id, uint32_t /*flags*/, const spa_pod* param)
{
    auto* self = static_cast<FakeCard*>(object);
    State& state = self->_state;
    uint32_t route = 0, device = 0;
    const spa_pod *properties = nullptr, *volumes = nullptr;
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
    self->_emitInfo();
    return 0;
}

void FakeCard::_emitInfo()
{
    for (spa_param_info& info : _params)
        if (info.id == SPA_PARAM_Route || info.id == SPA_PARAM_EnumRoute)
            info.flags ^= SPA_PARAM_INFO_SERIAL; // otherwise clients do not read the new value
    spa_device_emit_info(&_hooks, &_info);
}

void FakeCard::change(const std::function<void(State&)>& change)
{
    _client.locked([&] {
        change(_state);
        _emitInfo();
    });
}

bool FakeCard::waitUntil(const std::function<bool(const State&)>& isTrue) const
{
    return _client.waitUntil([&] { return isTrue(_state); });
}
