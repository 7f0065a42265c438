#include "PipeWireNode.h"

#include <algorithm>
#include <pipewire/pipewire.h>

struct PipeWireNode::Listener {
    spa_hook hook{};
};

std::optional<PipeWireNode::Kind> PipeWireNode::kindOfMediaClass(const std::string& mediaClass)
{
    // Matches Audio/Sink, Audio/Source/Virtual, Audio/Sink/Internal and so on, but not Audio/Sinkhole.
    const auto isOf = [&](const std::string& name) {
        return mediaClass == name || mediaClass.starts_with(name + "/");
    };
    if (isOf("Audio/Sink"))
        return Kind::Sink;
    if (isOf("Audio/Source"))
        return Kind::Source;
    if (isOf("Audio/Duplex"))
        return Kind::Duplex;
    return std::nullopt;
}

PipeWireNode::PipeWireNode(PipeWireSession& session, uint32_t id, uint64_t serial, Kind kind,
                           const PipeWireProperties& properties, PipeWireLoop::Work changed)
    : _session(session), _id(id), _serial(serial), _kind(kind), _changed(std::move(changed)),
      _listener(std::make_unique<Listener>()), _properties(properties),
      _params({SPA_PARAM_Props, SPA_PARAM_EnumFormat, SPA_PARAM_Format})
{
    static const pw_node_events events{PW_VERSION_NODE_EVENTS, _info, _param};
    _proxy = session.bind(id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE);
    if (_proxy)
        pw_proxy_add_object_listener(_proxy, &_listener->hook, &events, this);
}

PipeWireNode::~PipeWireNode()
{
    _session.forget(this);
    if (!_proxy)
        return;
    spa_hook_remove(&_listener->hook);
    pw_proxy_destroy(_proxy);
}

std::optional<uint32_t> PipeWireNode::cardID() const
{
    return _properties.number(PW_KEY_DEVICE_ID);
}

void PipeWireNode::_info(void* data, const pw_node_info* info)
{
    auto* self = static_cast<PipeWireNode*>(data);
    bool changed = false;
    if ((info->change_mask & PW_NODE_CHANGE_MASK_PROPS) != 0) {
        self->_properties.merge(info->props);
        changed = true;
    }
    if ((info->change_mask & PW_NODE_CHANGE_MASK_STATE) != 0) {
        self->_isRunning = info->state == PW_NODE_STATE_RUNNING;
        changed = true;
    }
    bool asked = false;
    if ((info->change_mask & PW_NODE_CHANGE_MASK_PARAMS) != 0)
        asked = self->_params.follow({info->params, info->n_params}, [self](uint32_t kind) {
            pw_node_enum_params(reinterpret_cast<pw_node*>(self->_proxy), 0, kind, 0, UINT32_MAX, nullptr);
        });
    if (asked || !self->_isReady)
        self->_commitWhenAnswered();
    else if (changed)
        self->_changed();
}

void PipeWireNode::_param(void* data, int /*sequence*/, uint32_t kind, uint32_t index, uint32_t /*next*/,
                          const spa_pod* param)
{
    static_cast<PipeWireNode*>(data)->_params.take(kind, index, param);
}

void PipeWireNode::_commitWhenAnswered()
{
    _session.sync(this, [this] {
        _params.commit();
        _isReady = true;
        _followLatency();
        _changed();
    });
}

std::vector<const PipeWirePort*> PipeWireNode::_ports(bool inputs) const
{
    std::vector<const PipeWirePort*> ports;
    for (const auto& [portID, port] : _allPorts)
        if (port.isAudio && port.isInput == inputs)
            ports.push_back(&port);
    std::ranges::sort(ports, {}, &PipeWirePort::index);
    return ports;
}

std::vector<const PipeWirePort*> PipeWireNode::playbackPorts() const
{
    // The inputs of a virtual source, through which other clients feed it, are not playback ports.
    return _kind == Kind::Source ? std::vector<const PipeWirePort*>() : _ports(true);
}

std::vector<const PipeWirePort*> PipeWireNode::capturePorts() const
{
    // The outputs of a sink are its monitors. Those of a virtual source are only marked as monitors.
    return _kind == Kind::Sink ? std::vector<const PipeWirePort*>() : _ports(false);
}

std::vector<const PipeWirePort*> PipeWireNode::monitorPorts() const
{
    return _kind == Kind::Sink ? _ports(false) : std::vector<const PipeWirePort*>();
}

void PipeWireNode::portAppeared(const PipeWirePort& port)
{
    _allPorts[port.id] = port;
    if (!_isReady)
        return;
    _followLatency();
    _changed();
}

void PipeWireNode::portDisappeared(uint32_t portID)
{
    _allPorts.erase(portID);
    // The server may soon give the id to another port, whose latency would then count as followed.
    for (auto* each : {&_playbackLatency, &_captureLatency})
        if (*each && (*each)->portID() == portID)
            each->reset();
    if (!_isReady)
        return;
    _followLatency();
    _changed();
}

/// Follows the latency of the first port in each direction: all channels of a device have the same.
void PipeWireNode::_followLatency()
{
    const auto follow = [this](std::unique_ptr<PipeWirePortLatency>& latency,
                               const std::vector<const PipeWirePort*>& ports) {
        if (ports.empty())
            latency.reset();
        else if (!latency || latency->portID() != ports.front()->id)
            latency = std::make_unique<PipeWirePortLatency>(_session, *ports.front(), _changed);
    };
    follow(_playbackLatency, playbackPorts());
    follow(_captureLatency, capturePorts());
}

PipeWireLatency PipeWireNode::latency(bool ofPlayback) const
{
    const auto& latency = ofPlayback ? _playbackLatency : _captureLatency;
    return latency ? latency->latency() : PipeWireLatency{};
}

PipeWireVolumeProps PipeWireNode::volumeProps() const
{
    return pipeWireParseProps(_params.first(SPA_PARAM_Props));
}

std::vector<PipeWireRateRange> PipeWireNode::rates() const
{
    std::vector<PipeWireRateRange> all;
    for (const spa_pod* format : _params.list(SPA_PARAM_EnumFormat)) {
        const std::vector<PipeWireRateRange> rates = pipeWireParseRates(format);
        all.insert(all.end(), rates.begin(), rates.end());
    }
    return all;
}

std::optional<uint32_t> PipeWireNode::formatRate() const
{
    const std::vector<PipeWireRateRange> rates = pipeWireParseRates(_params.first(SPA_PARAM_Format));
    return rates.empty() ? std::nullopt : std::optional(rates.front().lowest);
}

void PipeWireNode::setVolumeProps(const PipeWireVolumeProps& change)
{
    pipeWireWithProps(change, [this](const spa_pod* props) {
        pw_node_set_param(reinterpret_cast<pw_node*>(_proxy), SPA_PARAM_Props, 0, props);
    });
}
