#include "MonitorTap.h"

#include "HostClock.h"

#include <algorithm>
#include <thread>

MonitorTap::MonitorTap(TestClient& client, uint32_t nodeID, const std::string& port, size_t maxFrames)
    : _client(client), _samples(maxFrames)
{
    static const pw_filter_events events = [] {
        pw_filter_events all{};
        all.version = PW_VERSION_FILTER_EVENTS;
        all.process = _process;
        return all;
    }();
    _client.locked([&] {
        _filter = pw_filter_new(_client.core(), "tap",
                                newProperties({{PW_KEY_MEDIA_TYPE, "Audio"}, {PW_KEY_NODE_NAME, "tap"}}));
        pw_filter_add_listener(_filter, &_listener, &events, this);
        _port = pw_filter_add_port(
            _filter, PW_DIRECTION_INPUT, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
            newProperties({{PW_KEY_FORMAT_DSP, "32 bit float mono audio"}, {PW_KEY_PORT_NAME, "input"}}),
            nullptr, 0);
        pw_filter_connect(_filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0);
    });
    _client.waitUntil([this] { return pw_filter_get_state(_filter, nullptr) >= PW_FILTER_STATE_PAUSED; });
    _link = _client.link(nodeID, port, pw_filter_get_node_id(_filter), "input");
    _client.sync();
}

MonitorTap::~MonitorTap()
{
    finish();
}

void MonitorTap::_process(void* data, spa_io_position* position)
{
    auto* self = static_cast<MonitorTap*>(data);
    if (!position)
        return;
    const auto frames = static_cast<uint32_t>(position->clock.duration);
    const auto* samples = static_cast<const float*>(pw_filter_get_dsp_buffer(self->_port, frames));
    const size_t count = self->_count;
    if (!samples || count + frames > self->_samples.size())
        return;
    const bool isSilent = std::all_of(samples, samples + frames, [](float sample) { return sample == 0.0F; });
    if (count == 0 && isSilent)
        return;
    if (count > 0 && position->clock.position != self->_next)
        ++self->_gaps;
    self->_next = position->clock.position + frames;
    std::copy(samples, samples + frames, self->_samples.begin() + static_cast<ptrdiff_t>(count));
    self->_count = count + frames;
    if (dxr::HostClock::nowTicks() > position->clock.next_nsec)
        ++self->_gaps; // so late that the samples may have been those of the next cycle
}

bool MonitorTap::waitForFrames(size_t count) const
{
    for (int look = 0; look < 2000 && _count < count; ++look)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return _count >= count;
}

std::vector<float> MonitorTap::finish()
{
    if (_filter) {
        _client.locked([this] {
            pw_proxy_destroy(_link);
            pw_filter_destroy(_filter);
        });
        _filter = nullptr;
        _samples.resize(_count);
        const auto first = std::ranges::find_if(_samples, [](float sample) { return sample != 0.0F; });
        _samples.erase(_samples.begin(), first);
    }
    return _samples;
}
