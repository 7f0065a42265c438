#include "PipeWireCard.h"

#include <algorithm>
#include <pipewire/device.h>
#include <pipewire/pipewire.h>

namespace {

bool isIn(const std::vector<uint32_t>& all, uint32_t one)
{
    return std::ranges::find(all, one) != all.end();
}

} // namespace

struct PipeWireCard::Listener {
    spa_hook hook{};
};

PipeWireCard::PipeWireCard(PipeWireSession& session, uint32_t id, uint64_t serial,
                           const PipeWireProperties& properties, PipeWireLoop::Work changed)
    : _session(session), _id(id), _serial(serial), _changed(std::move(changed)),
      _listener(std::make_unique<Listener>()), _properties(properties),
      _params({SPA_PARAM_EnumRoute, SPA_PARAM_Route, SPA_PARAM_Profile})
{
    static const pw_device_events events{PW_VERSION_DEVICE_EVENTS, _info, _param};
    _proxy = session.bind(id, PW_TYPE_INTERFACE_Device, PW_VERSION_DEVICE);
    if (_proxy)
        pw_proxy_add_object_listener(_proxy, &_listener->hook, &events, this);
}

PipeWireCard::~PipeWireCard()
{
    _session.forget(this);
    if (!_proxy)
        return;
    spa_hook_remove(&_listener->hook);
    pw_proxy_destroy(_proxy);
}

void PipeWireCard::_info(void* data, const pw_device_info* info)
{
    auto* self = static_cast<PipeWireCard*>(data);
    if ((info->change_mask & PW_DEVICE_CHANGE_MASK_PROPS) != 0)
        self->_properties.merge(info->props);
    bool asked = false;
    if ((info->change_mask & PW_DEVICE_CHANGE_MASK_PARAMS) != 0)
        asked = self->_params.follow({info->params, info->n_params}, [self](uint32_t kind) {
            pw_device_enum_params(reinterpret_cast<pw_device*>(self->_proxy), 0, kind, 0, UINT32_MAX,
                                  nullptr);
        });
    if (asked || !self->_isReady)
        self->_commitWhenAnswered();
    else
        self->_changed();
}

void PipeWireCard::_param(void* data, int /*sequence*/, uint32_t kind, uint32_t index, uint32_t /*next*/,
                          const spa_pod* param)
{
    static_cast<PipeWireCard*>(data)->_params.take(kind, index, param);
}

void PipeWireCard::_commitWhenAnswered()
{
    _session.sync(this, [this] {
        _params.commit();
        _parse();
        _isReady = true;
        _changed();
    });
}

void PipeWireCard::_parse()
{
    const auto parse = [this](uint32_t kind) {
        std::vector<PipeWireRoute> routes;
        for (const spa_pod* param : _params.list(kind))
            if (std::optional<PipeWireRoute> route = pipeWireParseRoute(param))
                routes.push_back(std::move(*route));
        return routes;
    };
    _routes = parse(SPA_PARAM_EnumRoute);
    _activeRoutes = parse(SPA_PARAM_Route);
    _profile = pipeWireParseProfile(_params.first(SPA_PARAM_Profile));
}

std::vector<PipeWireRoute> PipeWireCard::routes(uint32_t device, bool isInput) const
{
    std::vector<PipeWireRoute> all;
    for (const PipeWireRoute& route : _routes) {
        const bool isOfProfile = route.profiles.empty() || !_profile || isIn(route.profiles, *_profile);
        if (route.isInput == isInput && !route.isUnplugged && isIn(route.devices, device) && isOfProfile)
            all.push_back(route);
    }
    return all;
}

std::optional<PipeWireRoute> PipeWireCard::activeRoute(uint32_t device, bool isInput) const
{
    for (const PipeWireRoute& route : _activeRoutes)
        if (route.isInput == isInput && route.device == device)
            return route;
    return std::nullopt;
}

void PipeWireCard::setRoute(uint32_t routeIndex, uint32_t device, const PipeWireVolumeProps& change)
{
    pipeWireWithRoute(routeIndex, device, change, [this](const spa_pod* route) {
        pw_device_set_param(reinterpret_cast<pw_device*>(_proxy), SPA_PARAM_Route, 0, route);
    });
}
