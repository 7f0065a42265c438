#pragma once

#include "TestPort.h"

#include <atomic>
#include <optional>

/// Records what an output port of a node gives: of a sink's monitor, what was played to it.
/// Threads: one; samples arrive on PipeWire's audio thread.
class MonitorTap {
public:
    /// Room for `maxFrames` frames; later ones are dropped.
    MonitorTap(TestClient& client, const std::string& node, const std::string& port,
               size_t maxFrames = 1 << 18);

    /// Waits for so many frames other than silence. False when they do not come.
    bool waitForFrames(size_t count) const;
    /// Ends the recording and returns it, from the first frame that is not silent.
    std::vector<float> finish();
    /// How often this recording itself lost a cycle, or may have.
    uint64_t gaps() const noexcept { return _gaps; }

private:
    void _record(const spa_io_clock& clock, const float* samples) noexcept;

    std::vector<float> _samples;
    std::atomic<size_t> _count{0}; // written by the audio thread; read for progress, and when it is over
    std::atomic<uint64_t> _gaps{0};
    uint64_t _next = 0; // the audio thread's
    std::optional<TestPort> _port;
};
