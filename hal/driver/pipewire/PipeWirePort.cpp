#include "PipeWirePort.h"

#include <pipewire/pipewire.h>

PipeWirePort::PipeWirePort(uint32_t globalID, const PipeWireProperties& properties)
    : id(globalID), index(properties.number(PW_KEY_PORT_ID).value_or(0)),
      isInput(properties[PW_KEY_PORT_DIRECTION] == "in"), isMonitor(properties.isTrue(PW_KEY_PORT_MONITOR)),
      name(properties[PW_KEY_PORT_NAME]), channel(properties[PW_KEY_AUDIO_CHANNEL])
{
    const std::string* format = properties.find(PW_KEY_FORMAT_DSP);
    isAudio = format ? format->find("audio") != std::string::npos : !channel.empty();
}

struct PipeWirePortLatency::Listener {
    spa_hook hook{};
};

PipeWirePortLatency::PipeWirePortLatency(PipeWireSession& session, const PipeWirePort& port,
                                         PipeWireLoop::Work changed)
    : _portID(port.id), _isInput(port.isInput), _changed(std::move(changed)),
      _listener(std::make_unique<Listener>()),
      _proxy(session.bind(port.id, PW_TYPE_INTERFACE_Port, PW_VERSION_PORT))
{
    static const pw_port_events events{PW_VERSION_PORT_EVENTS, nullptr, _param};
    if (!_proxy)
        return;
    pw_proxy_add_object_listener(_proxy, &_listener->hook, &events, this);
    uint32_t kind = SPA_PARAM_Latency; // subscriptions to a single kind are reliable
    pw_port_subscribe_params(reinterpret_cast<pw_port*>(_proxy), &kind, 1);
}

PipeWirePortLatency::~PipeWirePortLatency()
{
    if (!_proxy)
        return;
    spa_hook_remove(&_listener->hook);
    pw_proxy_destroy(_proxy);
}

void PipeWirePortLatency::_param(void* data, int /*sequence*/, uint32_t kind, uint32_t /*index*/,
                                 uint32_t /*next*/, const spa_pod* param)
{
    auto* self = static_cast<PipeWirePortLatency*>(data);
    if (kind != SPA_PARAM_Latency)
        return;
    const std::optional<PipeWireLatency> latency = pipeWireParseLatency(param);
    if (!latency || latency->isInput != self->_isInput || *latency == self->_latency)
        return;
    self->_latency = *latency;
    self->_changed();
}
