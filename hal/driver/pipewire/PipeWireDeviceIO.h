#pragma once

#include "HALIOProcTable.h"
#include "PipeWireLinks.h"
#include "PipeWirePort.h"
#include "PipeWireSession.h"
#include "PipeWireTimeline.h"
#include "PipeWireWake.h"

#include <atomic>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct pw_filter;
struct spa_io_position;

/// The ports of a device that IO is linked to, by their ids on the server, in channel order.
struct PipeWireEnds {
    std::vector<uint32_t> capturePorts;
    std::vector<uint32_t> playbackPorts;
    bool operator==(const PipeWireEnds&) const = default;
};

/// Channels of a device's streams: one stream per direction; 0: no stream.
struct PipeWireChannels {
    uint32_t capture = 0;
    uint32_t playback = 0;
    bool operator==(const PipeWireChannels&) const = default;
};

/// The last clock that a running device was seen to have.
struct PipeWireClockSeen {
    double rate = 0.0; ///< Hz, nominal; 0 before the first cycle
    uint32_t frameCount = 0;
    double rateRatio = 1.0; ///< measured rate over nominal
    bool operator==(const PipeWireClockSeen&) const = default;
};

/// Runs the cycles of one device, or of several in one graph: one node on the server with a port for each
/// channel of each member, linked to the members' ports. Each cycle of the graph reaches the node on
/// PipeWire's audio thread, goes through the IO callbacks with the streams of all members in order, and back.
/// A member that is absent keeps its ports, unlinked and silent: the others never notice how it comes and
/// goes.
/// Threads:   the loop's, except for _process(), which is the audio thread's from the constructor's end to
///            the destructor's.
/// Real time: _process().
class PipeWireDeviceIO {
public:
    /// What is asked of the graph. A forced value was chosen by a client; the others are suggestions.
    struct WantedTiming {
        double rate = 48000.0; ///< Hz
        uint32_t frameCount = 512;
        bool forcesRate = false;
        bool forcesFrameCount = false;
        bool operator==(const WantedTiming&) const = default;
    };

    /// Begins to make the node, with no member present. Signals `wake` when clock(), isAlive(), isPaused() or
    /// the state of a link has changed, and when frames were lost. `timeline` goes on from where it was, and
    /// outlives this. `maxFrames` is the longest cycle that can come.
    PipeWireDeviceIO(PipeWireSession& session, const PipeWireWake& wake, const CXRef<HALIOProcTable>& table,
                     std::span<const PipeWireChannels> members, const WantedTiming& wanted,
                     uint32_t maxFrames, PipeWireTimeline& timeline);
    /// No cycle runs afterwards.
    ~PipeWireDeviceIO();
    PipeWireDeviceIO(const PipeWireDeviceIO&) = delete;
    PipeWireDeviceIO& operator=(const PipeWireDeviceIO&) = delete;

    void setWantedTiming(const WantedTiming& wanted);
    /// The node's own id on the server; nothing while it has none.
    std::optional<uint32_t> nodeID() const;
    /// Gives the ports of the node as the server lists them. Links are made once all are known.
    void setOwnPorts(const std::vector<PipeWirePort>& own);
    /// Links the member at `place` to these ports, or unlinks it. As many as it has channels.
    void setMember(size_t place, const std::optional<PipeWireEnds>& ends);
    /// Makes the broken links anew; the others go on.
    void mendLinks();

    bool isAlive() const; ///< false: the server has refused the node, or destroyed it
    /// Whether the node had cycles, and the server has paused it since.
    bool isPaused() const;
    /// Null while the member is absent, or the node's own ports are not known yet.
    const PipeWireLinks* links(size_t place) const { return _members[place].links.get(); }

    PipeWireClockSeen clock() const;
    /// Cycles so far.
    uint64_t cycleCount() const noexcept { return _cycleCount.load(std::memory_order_relaxed); }
    /// How often frames were lost so far, each reported to the table already.
    uint64_t overloadCount() const noexcept { return _overloadCount.load(std::memory_order_relaxed); }

    /// Whether the calling thread is inside a cycle of any device.
    static bool isOnIOThread() noexcept CX_REALTIME;

private:
    struct Listener;
    struct Member {
        PipeWireChannels channels;
        size_t firstCapture = 0, firstPlayback = 0; // among the ports of all
        std::optional<PipeWireEnds> ends;
        std::unique_ptr<PipeWireLinks> links;
    };
    /// One stream of one member: its ports, and its samples interleaved.
    struct Stream {
        std::vector<void*> ports;
        std::vector<float> samples;
    };

    void _addStreams(std::span<const PipeWireChannels> members);
    void _addPorts(std::vector<void*>& ports, bool isInput, size_t first, size_t count);
    void _link(Member& member);
    static PipeWireProperties _propertiesOf(const WantedTiming& wanted);

    static void _process(void* data, spa_io_position* position);
    void _cycle(const spa_io_position& position) noexcept CX_REALTIME;
    void _runProcs(HALCycle& cycle) noexcept CX_REALTIME;
    void _skipCycle(uint32_t frameCount) noexcept CX_REALTIME;
    void _noteClock(const spa_io_position& position) noexcept CX_REALTIME;
    void _noteOverload() noexcept CX_REALTIME;

    PipeWireSession& _session;
    const PipeWireWake& _wake;
    const CXRef<HALIOProcTable> _table;
    const uint32_t _maxFrames;
    PipeWireTimeline& _timeline;
    const std::unique_ptr<Listener> _listener;
    pw_filter* _filter = nullptr;
    bool _hadCycles = false;                       // the node was streaming once
    std::vector<uint32_t> _ownInputs, _ownOutputs; // ids of the node's ports; empty until all are known
    std::vector<Member> _members;

    // Set up before the node can have cycles, the audio thread's from then on: the loop changes neither the
    // streams nor their ports until the filter is destroyed, which waits for the audio thread to leave it.
    // Members come and go by links alone; PipeWire itself gives and takes a port's buffers on the audio
    // thread.
    std::vector<Stream> _inputs, _outputs;
    std::vector<HALStreamBlock> _inputBlocks, _outputBlocks; // of one cycle
    uint64_t _ratioNanoseconds = 0;                          // when the ratio was last reported

    // Written by the audio thread alone, read by the loop, which is woken after every change but that of
    // _cycleCount, which it looks at from time to time. Relaxed: each value is complete by itself, nothing
    // else is published through it, and a reader that mixes two cycles is woken again.
    std::atomic<uint32_t> _rate{0};
    std::atomic<uint32_t> _frameCount{0};
    std::atomic<double> _rateRatio{1.0};
    std::atomic<uint64_t> _cycleCount{0};
    std::atomic<uint64_t> _overloadCount{0};
};
