#include "LatencyProbe.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

namespace {

constexpr double period = 1 << 24; // frames, after which the numbers begin again
constexpr double longest = 1 << 20;

pw_filter_events eventsWith(void (*process)(void*, spa_io_position*))
{
    pw_filter_events events{};
    events.version = PW_VERSION_FILTER_EVENTS;
    events.process = process;
    return events;
}

} // namespace

LatencyProbe::LatencyProbe(TestClient& client, const Port& into, const Port& outOf, double rate)
    : _client(client), _rate(rate)
{
    static const pw_filter_events sending = eventsWith(_send), hearing = eventsWith(_hear);
    _sender = _connect("sender", PW_DIRECTION_OUTPUT, sending, &_senderListener, &_output);
    _hearer = _connect("hearer", PW_DIRECTION_INPUT, hearing, &_hearerListener, &_input);
    _links[0] = _client.link(pw_filter_get_node_id(_sender), "port", _client.nodeID(into.node), into.name);
    _links[1] = _client.link(_client.nodeID(outOf.node), outOf.name, pw_filter_get_node_id(_hearer), "port");
    _client.sync();
}

LatencyProbe::~LatencyProbe()
{
    _client.locked([this] {
        for (pw_proxy* const link : _links)
            pw_proxy_destroy(link);
        pw_filter_destroy(_sender);
        pw_filter_destroy(_hearer);
    });
}

pw_filter* LatencyProbe::_connect(const char* name, pw_direction direction, const pw_filter_events& events,
                                  spa_hook* listener, void** port)
{
    pw_filter* filter = nullptr;
    _client.locked([&] {
        filter = pw_filter_new(_client.core(), name, newProperties({{PW_KEY_NODE_NAME, name}}));
        pw_filter_add_listener(filter, listener, &events, this);
        *port = pw_filter_add_port(
            filter, direction, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
            newProperties({{PW_KEY_FORMAT_DSP, "32 bit float mono audio"}, {PW_KEY_PORT_NAME, "port"}}),
            nullptr, 0);
        pw_filter_connect(filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0);
    });
    _client.waitUntil([&] { return pw_filter_get_state(filter, nullptr) >= PW_FILTER_STATE_PAUSED; });
    return filter;
}

/// Of the cycle's first frame. The cycles of every graph are on the same clock.
uint32_t LatencyProbe::_timeOf(const spa_io_position* position) const noexcept
{
    return static_cast<uint32_t>(
        std::llround(std::fmod(static_cast<double>(position->clock.nsec) * 1e-9 * _rate, period)));
}

void LatencyProbe::_send(void* data, spa_io_position* position)
{
    const auto& self = *static_cast<LatencyProbe*>(data);
    if (!position)
        return;
    const auto frameCount = static_cast<uint32_t>(position->clock.duration);
    auto* const samples = static_cast<float*>(pw_filter_get_dsp_buffer(self._output, frameCount));
    const uint32_t time = self._timeOf(position);
    for (uint32_t frame = 0; samples && frame < frameCount; ++frame)
        samples[frame] =
            static_cast<float>((time + frame) % static_cast<uint32_t>(period)) / static_cast<float>(period);
}

void LatencyProbe::_hear(void* data, spa_io_position* position)
{
    auto& self = *static_cast<LatencyProbe*>(data);
    if (!position)
        return;
    // Taken in every cycle: what is left would be in the way of what comes.
    const auto frameCount = static_cast<uint32_t>(position->clock.duration);
    const auto* const samples = static_cast<const float*>(pw_filter_get_dsp_buffer(self._input, frameCount));
    const size_t heard = self._heard;
    if (!samples || samples[0] == 0.0F || heard >= self._wanted)
        return;
    const double late = self._timeOf(position) - static_cast<double>(samples[0]) * period;
    const double latency = late < -period / 2 ? late + period : late;
    if (std::abs(latency) > longest)
        return;
    self._latencies[heard] = latency;
    self._heard = heard + 1;
}

std::vector<double> LatencyProbe::measure(size_t count)
{
    _latencies.resize(count);
    _heard = 0;
    _wanted = count;
    for (int look = 0; look < 1000 && _heard < count; ++look)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    _wanted = 0;
    std::vector<double> latencies(_latencies.begin(),
                                  _latencies.begin() + static_cast<std::ptrdiff_t>(_heard));
    std::ranges::sort(latencies);
    return latencies;
}
