#pragma once

#include "TestPort.h"

#include <atomic>

/// Sends frames through what is connected between two ports, and measures how late they come back. Each frame is the
/// number of its time, in steps of 2^-24, so that one that is lost, repeated or resampled still states its time.
/// Threads: one; frames are sent and received on PipeWire's audio thread.
class LatencyProbe {
public:
    struct Port {
        std::string node, name;
    };

    /// Frames go in at `input` and come back at `output`. `rate` is the server's, Hz.
    LatencyProbe(TestClient& client, const Port& input, const Port& output, double rate);

    /// Waits for `count` cycles with sound and returns how late each was, in frames, in ascending order; fewer when
    /// they do not come within some seconds.
    std::vector<double> measure(size_t count);

private:
    double _timeOf(const spa_io_clock& clock) const noexcept;
    void _send(const spa_io_clock& clock, float* samples) const noexcept;
    void _receive(const spa_io_clock& clock, const float* samples) noexcept;

    const double _rate;
    std::vector<double> _latencies;
    std::atomic<size_t> _wanted{0},
        _received{0}; // the audio thread writes while it has received less than wanted
    const TestPort _sender, _receiver;
};
