#include "LatencyProbe.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

namespace {

constexpr double period = 1 << 24; // frames, after which the values repeat
constexpr double maxLatency = 1 << 20;

} // namespace

LatencyProbe::LatencyProbe(TestClient& client, const Port& input, const Port& output, double rate)
    : _client(client), _rate(rate)
{
    _open(_sender, PW_DIRECTION_OUTPUT, input);
    _open(_receiver, PW_DIRECTION_INPUT, output);
}

LatencyProbe::~LatencyProbe()
{
    for (const End* end : {&_sender, &_receiver})
        _client.locked([end] {
            pw_proxy_destroy(end->link);
            pw_filter_destroy(end->filter);
        });
}

void LatencyProbe::_open(End& end, pw_direction direction, const Port& other)
{
    static pw_filter_events events[2];
    const bool isSender = direction == PW_DIRECTION_OUTPUT;
    events[isSender].version = PW_VERSION_FILTER_EVENTS;
    events[isSender].process = isSender ? _send : _receive;
    _client.locked([&] {
        end.filter = pw_filter_new(_client.core(), "probe", newProperties({{PW_KEY_NODE_NAME, "probe"}}));
        pw_filter_add_listener(end.filter, &end.listener, &events[isSender], this);
        end.port = pw_filter_add_port(
            end.filter, direction, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
            newProperties({{PW_KEY_FORMAT_DSP, "32 bit float mono audio"}, {PW_KEY_PORT_NAME, "port"}}),
            nullptr, 0);
        pw_filter_connect(end.filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0);
    });
    _client.waitUntil([&] { return pw_filter_get_state(end.filter, nullptr) >= PW_FILTER_STATE_PAUSED; });
    const uint32_t own = pw_filter_get_node_id(end.filter), node = _client.nodeID(other.node);
    end.link =
        isSender ? _client.link(own, "port", node, other.name) : _client.link(node, other.name, own, "port");
}

/// The time of the cycle's first frame, in frames. The cycles of all graphs use the same clock.
double LatencyProbe::_timeOf(const spa_io_clock& clock) const noexcept
{
    return std::round(std::fmod(static_cast<double>(clock.nsec) * 1e-9 * _rate, period));
}

void LatencyProbe::_send(void* data, spa_io_position* position)
{
    if (!position)
        return;
    const auto& self = *static_cast<LatencyProbe*>(data);
    const auto count = static_cast<uint32_t>(position->clock.duration);
    auto* samples = static_cast<float*>(pw_filter_get_dsp_buffer(self._sender.port, count));
    const double time = self._timeOf(position->clock);
    for (uint32_t frame = 0; samples && frame < count; ++frame)
        samples[frame] = static_cast<float>(std::fmod(time + frame, period) / period);
}

void LatencyProbe::_receive(void* data, spa_io_position* position)
{
    if (!position)
        return;
    auto& self = *static_cast<LatencyProbe*>(data);
    // Takes a buffer in every cycle: an unused one would be returned in the next.
    const auto* samples = static_cast<const float*>(
        pw_filter_get_dsp_buffer(self._receiver.port, static_cast<uint32_t>(position->clock.duration)));
    const size_t received = self._received;
    if (!samples || samples[0] == 0.0F || received >= self._wanted)
        return;
    const double late = self._timeOf(position->clock) - static_cast<double>(samples[0]) * period;
    const double latency = late < -period / 2 ? late + period : late;
    if (std::abs(latency) > maxLatency)
        return;
    self._latencies[received] = latency;
    self._received = received + 1;
}

std::vector<double> LatencyProbe::measure(size_t count)
{
    _latencies.resize(count);
    _received = 0;
    _wanted = count;
    for (int looks = 0; looks < 1000 && _received < count; ++looks)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    _wanted = 0;
    _latencies.resize(_received);
    std::ranges::sort(_latencies);
    return _latencies;
}
