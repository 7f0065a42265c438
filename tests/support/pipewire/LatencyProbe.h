#pragma once

#include "TestClient.h"

#include <atomic>
#include <pipewire/filter.h>
#include <string>
#include <vector>

/// Sends frames through what lies between two ports, and measures how late they come back. Each frame is the number of
/// its time, in steps of 2^-24, so that one that is lost, repeated or brought to another rate tells its time still.
/// Threads: one; frames are sent and heard on PipeWire's audio thread.
class LatencyProbe {
public:
    struct Port {
        std::string node, name;
    };

    /// Frames go in at `into` and are heard at `outOf`. `rate` is the server's, Hz.
    LatencyProbe(TestClient& client, const Port& into, const Port& outOf, double rate);
    ~LatencyProbe();
    LatencyProbe(const LatencyProbe&) = delete;
    LatencyProbe& operator=(const LatencyProbe&) = delete;

    /// Waits for `count` cycles with sound and returns how late each was, in frames, in ascending order; fewer when
    /// they do not come within some seconds.
    std::vector<double> measure(size_t count);

private:
    static void _send(void* data, spa_io_position* position);
    static void _hear(void* data, spa_io_position* position);
    uint32_t _timeOf(const spa_io_position* position) const noexcept;
    pw_filter* _connect(const char* name, pw_direction direction, const pw_filter_events& events,
                        spa_hook* listener, void** port);

    TestClient& _client;
    const double _rate;
    pw_filter* _sender = nullptr;
    pw_filter* _hearer = nullptr;
    spa_hook _senderListener{}, _hearerListener{};
    void* _output = nullptr;
    void* _input = nullptr;
    pw_proxy* _links[2] = {};
    std::vector<double> _latencies;
    std::atomic<size_t> _wanted{0},
        _heard{0}; // the audio thread fills while it has heard less than is wanted
};
