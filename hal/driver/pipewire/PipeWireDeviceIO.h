#pragma once

#include "HALIOProcTable.h"
#include "PipeWireLinks.h"
#include "PipeWirePort.h"
#include "PipeWireSession.h"
#include "PipeWireTimeline.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct pw_filter;
struct spa_io_position;

/// The ends of a device that IO is linked to, by their ids on the server, in channel order.
struct PipeWireEnds {
    std::vector<uint32_t> capturePorts;
    std::vector<uint32_t> playbackPorts;
    bool operator==(const PipeWireEnds&) const = default;
};

/// What the clock of a running device was last seen to do.
struct PipeWireClockSeen {
    double rate = 0.0; ///< Hz, nominal; 0 before the first cycle
    uint32_t frameCount = 0;
    double rateRatio = 1.0; ///< real rate over nominal
};

/// Runs the cycles of one device: a filter on the server with one port for each channel, linked to the device's.
/// Each cycle of the graph that the device drives comes to the filter on PipeWire's audio thread, is handed to the
/// device's IO callbacks with its samples interleaved, and goes back.
/// Threads:   the loop's, but for _process(), which is the audio thread's from the constructor's end to the
///            destructor's.
/// Real time: _process().
class PipeWireDeviceIO {
public:
    /// What is asked of the graph. Forced values are for a client that chose them; others are suggestions.
    struct Wishes {
        double rate;
        uint32_t frameCount;
        bool forcesRate;
        bool forcesFrameCount;
    };

    /// Starts. Calls `changed` on the loop whenever clock() has changed, with the first cycle, and when there may be
    /// something to link. It must not end this. `timeline` goes on from where it was, and outlives this. `mostFrames` is the longest cycle that can come.
    PipeWireDeviceIO(PipeWireSession& session, const CXRef<HALIOProcTable>& table, PipeWireEnds ends,
                     const Wishes& wishes, uint32_t mostFrames, PipeWireTimeline& timeline,
                     PipeWireLoop::Work changed);
    /// No cycle runs afterwards.
    ~PipeWireDeviceIO();
    PipeWireDeviceIO(const PipeWireDeviceIO&) = delete;
    PipeWireDeviceIO& operator=(const PipeWireDeviceIO&) = delete;

    const PipeWireEnds& ends() const noexcept { return _ends; }
    void setWishes(const Wishes& wishes);
    /// The filter's own id on the server; nothing while it has none.
    std::optional<uint32_t> nodeID() const;
    /// Links the filter to the device once its own ports are known. Does nothing when it is linked.
    void linkPorts(const std::vector<PipeWirePort>& own);
    bool isLinked() const noexcept { return _isLinked; }
    PipeWireClockSeen clock() const;

    /// Whether the calling thread is inside a cycle of any device.
    static bool isOnIOThread() noexcept CX_REALTIME;

private:
    struct Listener;

    static void _process(void* data, spa_io_position* position);
    void _cycle(const spa_io_position& position) noexcept CX_REALTIME;
    void _skipCycle(uint32_t frameCount) noexcept CX_REALTIME;
    void _noteClock(const spa_io_position& position) noexcept CX_REALTIME;
    void _addPorts(std::vector<void*>& ports, bool inputs, size_t count);
    static PipeWireProperties _propertiesOf(const Wishes& wishes);

    PipeWireSession& _session;
    const CXRef<HALIOProcTable> _table;
    const PipeWireEnds _ends;
    const uint32_t _mostFrames;
    PipeWireTimeline& _timeline;
    const PipeWireLoop::Work _changed;
    spa_source* const _wake;
    const std::unique_ptr<Listener> _listener;
    pw_filter* _filter = nullptr;
    bool _isLinked = false;
    bool _isEnding = false; // the filter's last changes of state are nothing to look at
    PipeWireLinks _links;

    // The audio thread's, set up before the first cycle.
    std::vector<void*> _inputPorts;
    std::vector<void*> _outputPorts;
    std::vector<float> _inputSamples;
    std::vector<float> _outputSamples;

    // Written by the audio thread alone and read by the loop, which is woken after a change. Relaxed: each says
    // something by itself, and a reader that mixes two cycles is woken again.
    std::atomic<uint32_t> _rate{0};
    std::atomic<uint32_t> _frameCount{0};
    std::atomic<double> _rateRatio{1.0};
    uint64_t _ratioNanoseconds = 0; // when the ratio was last told; the audio thread's
};
