#include "MonitorTap.h"

#include "HostClock.h"

#include <algorithm>
#include <thread>

MonitorTap::MonitorTap(TestClient& client, const std::string& node, const std::string& port, size_t maxFrames)
    : _samples(maxFrames)
{
    _port.emplace(client, PW_DIRECTION_INPUT, client.nodeID(node), port,
                  [this](const spa_io_clock& clock, const float* samples) { _record(clock, samples); });
}

void MonitorTap::_record(const spa_io_clock& clock, const float* samples) noexcept
{
    const size_t count = _count, frames = clock.duration;
    if (!samples || count + frames > _samples.size())
        return;
    if (count == 0 && std::all_of(samples, samples + frames, [](float sample) { return sample == 0.0F; }))
        return;
    if (count > 0 && clock.position != _next)
        ++_gaps;
    _next = clock.position + frames;
    std::copy(samples, samples + frames, _samples.begin() + static_cast<ptrdiff_t>(count));
    _count = count + frames;
    if (dxr::HostClock::nowTicks() > clock.next_nsec)
        ++_gaps; // so late that the samples may have been those of the next cycle
}

bool MonitorTap::waitForFrames(size_t count) const
{
    for (int looks = 0; looks < 2000 && _count < count; ++looks)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return _count >= count;
}

std::vector<float> MonitorTap::finish()
{
    _port.reset();
    _samples.resize(_count);
    _samples.erase(_samples.begin(),
                   std::ranges::find_if(_samples, [](float sample) { return sample != 0.0F; }));
    return _samples;
}
