#pragma once

#include "TestClient.h"

#include <atomic>
#include <pipewire/filter.h>
#include <string>
#include <vector>

/// Records what comes out of one output port of a node: of a sink's monitor, what was played to it.
/// Threads: one; samples arrive on PipeWire's audio thread.
class MonitorTap {
public:
    /// Room for `maxFrames` frames; what comes later is dropped.
    MonitorTap(TestClient& client, uint32_t nodeID, const std::string& port, size_t maxFrames);
    ~MonitorTap();
    MonitorTap(const MonitorTap&) = delete;
    MonitorTap& operator=(const MonitorTap&) = delete;

    /// Waits until so many frames other than silence came. False when they do not.
    bool waitForFrames(size_t count) const;
    /// Ends the recording and answers it, from the first frame that is not silent.
    std::vector<float> finish();
    /// How often this recording itself lost a cycle, or may have.
    uint64_t gaps() const noexcept { return _gaps; }

private:
    static void _process(void* data, spa_io_position* position);

    TestClient& _client;
    pw_filter* _filter = nullptr;
    spa_hook _listener{};
    void* _port = nullptr;
    pw_proxy* _link = nullptr;
    std::vector<float> _samples;
    std::atomic<size_t> _count{0}; // the audio thread's, read when it is over and for progress
    std::atomic<uint64_t> _gaps{0};
    uint64_t _next = 0;
};
