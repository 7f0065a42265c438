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
    : _rate(rate), _sender(client, PW_DIRECTION_OUTPUT, client.nodeID(input.node), input.name,
                           [this](const spa_io_clock& clock, float* samples) { _send(clock, samples); }),
      _receiver(client, PW_DIRECTION_INPUT, client.nodeID(output.node), output.name,
                [this](const spa_io_clock& clock, const float* samples) { _receive(clock, samples); })
{}

/// The time of the cycle's first frame, in frames. The cycles of all graphs use the same clock.
double LatencyProbe::_timeOf(const spa_io_clock& clock) const noexcept
{
    return std::round(std::fmod(static_cast<double>(clock.nsec) * 1e-9 * _rate, period));
}

void LatencyProbe::_send(const spa_io_clock& clock, float* samples) const noexcept
{
    const double time = _timeOf(clock);
    for (uint64_t frame = 0; samples && frame < clock.duration; ++frame)
        samples[frame] = static_cast<float>(std::fmod(time + static_cast<double>(frame), period) / period);
}

void LatencyProbe::_receive(const spa_io_clock& clock, const float* samples) noexcept
{
    const size_t received = _received;
    if (!samples || samples[0] == 0.0F || received >= _wanted)
        return;
    const double late = _timeOf(clock) - static_cast<double>(samples[0]) * period;
    const double latency = late < -period / 2 ? late + period : late;
    if (std::abs(latency) > maxLatency)
        return;
    _latencies[received] = latency;
    _received = received + 1;
}

std::vector<double> LatencyProbe::measure(size_t count)
{
    _latencies.resize(count);
    _received = 0;
    _wanted = count;
    for (int looks = 0; looks < 1000 && _received < count; ++looks)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    _wanted = 0;
    std::vector<double> latencies(_latencies.begin(), _latencies.begin() + static_cast<ptrdiff_t>(_received));
    std::ranges::sort(latencies);
    return latencies;
}
