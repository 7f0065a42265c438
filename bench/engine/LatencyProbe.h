#pragma once

#include "TestClient.h"

#include <atomic>
#include <pipewire/filter.h>

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
    ~LatencyProbe();
    LatencyProbe(const LatencyProbe&) = delete;
    LatencyProbe& operator=(const LatencyProbe&) = delete;

    /// Waits for `count` cycles with sound and returns the latency of each, in frames, in ascending order;
    /// fewer if 10 s pass first.
    std::vector<double> measure(size_t count);

private:
    /// A node with one port, linked to a port of another node.
    struct End {
        pw_filter* filter = nullptr;
        spa_hook listener{};
        void* port = nullptr;
        pw_proxy* link = nullptr;
    };
    static void _send(void* data, spa_io_position* position);
    static void _receive(void* data, spa_io_position* position);
    void _open(End& end, pw_direction direction, const Port& other);
    double _timeOf(const spa_io_clock& clock) const noexcept;

    TestClient& _client;
    const double _rate;
    std::vector<double> _latencies;
    std::atomic<size_t> _wanted{0},
        _received{0}; // the audio thread writes while it has received fewer than wanted
    End _sender, _receiver;
};
