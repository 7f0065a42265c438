#pragma once

#include "TestPort.h"

#include <atomic>

/// Sends frames through the path between two ports and measures their latency. The value of each frame is its
/// send time in frames, in steps of 2^-24, so the latency is known even if frames are lost, repeated or
/// resampled.
/// Threads: one; frames are sent and received on PipeWire's audio thread.
class LatencyProbe {
public:
    struct Port {
        std::string node, name;
    };

    /// Sends frames to the port `input` and receives them from `output`. `rate` is the server's, in Hz.
    LatencyProbe(TestClient& client, const Port& input, const Port& output, double rate);

    /// Waits for `count` cycles with sound and returns the latency of each, in frames, in ascending order;
    /// fewer if 10 s pass first.
    std::vector<double> measure(size_t count);

private:
    double _timeOf(const spa_io_clock& clock) const noexcept;
    void _send(const spa_io_clock& clock, float* samples) const noexcept;
    void _receive(const spa_io_clock& clock, const float* samples) noexcept;

    const double _rate;
    std::vector<double> _latencies;
    std::atomic<size_t> _wanted{0},
        _received{0}; // the audio thread writes while it has received fewer than wanted
    const TestPort _sender, _receiver;
};
