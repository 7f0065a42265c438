#include "TestPort.h"

TestPort::TestPort(TestClient& client, pw_direction direction, uint32_t node, const std::string& port,
                   Process process)
    : _client(client), _callback(std::move(process))
{
    static const pw_filter_events events = [] {
        pw_filter_events all{};
        all.version = PW_VERSION_FILTER_EVENTS;
        all.process = _process;
        return all;
    }();
    _client.locked([&] {
        _filter = pw_filter_new(_client.core(), "probe", newProperties({{PW_KEY_NODE_NAME, "probe"}}));
        pw_filter_add_listener(_filter, &_listener, &events, this);
        _port = pw_filter_add_port(
            _filter, direction, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
            newProperties({{PW_KEY_FORMAT_DSP, "32 bit float mono audio"}, {PW_KEY_PORT_NAME, "port"}}),
            nullptr, 0);
        pw_filter_connect(_filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0);
    });
    _client.waitUntil([this] { return pw_filter_get_state(_filter, nullptr) >= PW_FILTER_STATE_PAUSED; });
    const uint32_t own = pw_filter_get_node_id(_filter);
    _link = direction == PW_DIRECTION_INPUT ? _client.link(node, port, own, "port")
                                            : _client.link(own, "port", node, port);
}

TestPort::~TestPort()
{
    _client.locked([this] {
        pw_proxy_destroy(_link);
        pw_filter_destroy(_filter);
    });
}

void TestPort::_process(void* data, spa_io_position* position)
{
    const auto& self = *static_cast<TestPort*>(data);
    if (position) // take a buffer in every cycle: an unused one would be returned in the next
        self._callback(position->clock, static_cast<float*>(pw_filter_get_dsp_buffer(
                                            self._port, static_cast<uint32_t>(position->clock.duration))));
}
