#pragma once

#include "TestPort.h"

#include <atomic>
#include <optional>

/// Records an output port of a node. A sink's monitor port outputs what was played to the sink.
/// Threads: one; samples arrive on PipeWire's audio thread.
class MonitorTap {
public:
    /// Room for `maxFrames` frames; later ones are dropped.
    MonitorTap(TestClient& client, const std::string& node, const std::string& port,
               size_t maxFrames = 1 << 18);

    /// Waits until `count` frames were recorded, from the first that is not silent. Returns false on timeout.
    bool waitForFrames(size_t count) const;
    /// Ends the recording and returns it, from the first frame that is not silent.
    std::vector<float> finish();
    /// How often this recording may have lost a cycle.
    uint64_t gaps() const noexcept { return _gaps; }

private:
    void _record(const spa_io_clock& clock, const float* samples) noexcept;

    std::vector<float> _samples;
    std::atomic<size_t> _count{0}; // written by the audio thread; read for progress and at the end
    std::atomic<uint64_t> _gaps{0};
    uint64_t _next = 0; // used only by the audio thread
    std::optional<TestPort> _port;
};
