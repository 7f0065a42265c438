#pragma once

#include "TestClient.h"

#include <functional>

/// A node with one port, linked to a port of another node.
/// Threads: one; cycles run on PipeWire's audio thread.
class TestPort {
public:
    /// `samples` is null in a cycle without a buffer.
    using Process = std::function<void(const spa_io_clock& clock, float* samples)>;

    /// Links an input port to an output port of `node`, or an output port to an input port of it.
    TestPort(TestClient& client, pw_direction direction, uint32_t node, const std::string& port,
             Process process);
    ~TestPort();
    TestPort(const TestPort&) = delete;
    TestPort& operator=(const TestPort&) = delete;

private:
    static void _process(void* data, spa_io_position* position);

    TestClient& _client;
    const Process _callback;
    pw_filter* _filter = nullptr;
    spa_hook _listener{};
    void* _port = nullptr;
    pw_proxy* _link = nullptr;
};
