#pragma once

#include "HALIOProcTable.h"
#include "PipeWireIOPort.h"
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

/// The ports of a device that IO is linked to: the server's ids, in channel order.
struct PipeWireEnds {
    std::vector<uint32_t> capturePorts;
    std::vector<uint32_t> playbackPorts;
    bool operator==(const PipeWireEnds&) const = default;
};

/// Channel counts of a device's streams, one stream per direction; 0: no stream.
struct PipeWireChannels {
    uint32_t capture = 0;
    uint32_t playback = 0;
    bool operator==(const PipeWireChannels&) const = default;
};

/// The most recently observed clock of a running device.
struct PipeWireClockSeen {
    double rate = 0.0; ///< Hz, nominal; 0 before the first cycle
    uint32_t frameCount = 0;
    double rateRatio = 1.0; ///< measured rate over nominal
    bool operator==(const PipeWireClockSeen&) const = default;
};

/// Runs the cycles of one device, or of several devices in one graph. Creates one node on the server, with a
/// port for each channel of each member, linked to the members' ports. In each cycle of the graph, PipeWire's
/// audio thread calls the node, which passes the streams of all members, in order, through the IO callbacks.
/// An absent member keeps its ports, unlinked and silent, so that the other members are not disturbed when it
/// disappears or returns.
/// Threads:   the loop's. Only _process() is called on the audio thread, from the end of the constructor to
///            the end of the destructor.
/// Real time: _process().
class PipeWireDeviceIO {
public:
    /// The timing to ask of the graph. Forced values were chosen by a client; the others are suggestions.
    struct WantedTiming {
        double rate = 48000.0; ///< Hz
        uint32_t frameCount = 512;
        bool forcesRate = false;
        bool forcesFrameCount = false;
        bool operator==(const WantedTiming&) const = default;
    };

    /// Starts creating the node, with every member absent. Signals `wake` when clock(), isAlive(), isPaused()
    /// or the state of a link has changed, and when frames were lost. `timeline` continues from its current
    /// sample time and outlives this object. `maxFrames` is the longest possible cycle.
    PipeWireDeviceIO(PipeWireSession& session, const PipeWireWake& wake, const CXRef<HALIOProcTable>& table,
                     std::span<const PipeWireChannels> members, const WantedTiming& wanted,
                     uint32_t maxFrames, PipeWireTimeline& timeline);
    /// No cycle runs afterwards.
    ~PipeWireDeviceIO();
    PipeWireDeviceIO(const PipeWireDeviceIO&) = delete;
    PipeWireDeviceIO& operator=(const PipeWireDeviceIO&) = delete;

    void setWantedTiming(const WantedTiming& wanted);
    /// The node's id on the server; nullopt until it has one.
    std::optional<uint32_t> nodeID() const;
    /// Sets the node's ports as the server lists them. Links are created once all ports are known.
    void setOwnPorts(const std::vector<PipeWirePort>& own);
    /// Links the member at `place` to these ports, one per channel; nullopt unlinks it.
    void setMember(size_t place, const std::optional<PipeWireEnds>& ends);
    /// Recreates the broken links without interrupting the others.
    void mendLinks();

    bool isAlive() const; ///< false: the server has refused or destroyed the node
    /// Whether the server has paused the node after it had cycles.
    bool isPaused() const;
    /// Whether another client has destroyed a port, or an output has lost the memory that it shares with the
    /// server: a new node is needed.
    bool isDamaged() const;
    /// Null while the member is absent and until the node's own ports are known.
    const PipeWireLinks* links(size_t place) const { return _members[place].links.get(); }

    PipeWireClockSeen clock() const;
    /// Cycles so far.
    uint64_t cycleCount() const noexcept { return _cycleCount.load(std::memory_order_relaxed); }
    /// Losses of frames so far, each already reported to the table.
    uint64_t overloadCount() const noexcept { return _overloadCount.load(std::memory_order_relaxed); }

    /// Whether the calling thread is inside a cycle of any device.
    static bool isOnIOThread() noexcept CX_REALTIME;

private:
    struct Listener;
    struct Member {
        PipeWireChannels channels;
        size_t firstCapture = 0, firstPlayback = 0; // indices among the ports of all members
        std::optional<PipeWireEnds> ends;
        std::unique_ptr<PipeWireLinks> links;
    };
    /// One stream of one member: its ports, and its samples interleaved.
    struct Stream {
        std::vector<std::unique_ptr<PipeWireIOPort>> ports;
        std::vector<float> samples;
    };

    void _addStreams(std::span<const PipeWireChannels> members);
    void _addPorts(std::vector<Stream>& streams, const std::string& prefix);
    void _removeBuffer(PipeWireIOPort& port, pw_buffer& buffer);
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
    bool _hadCycles = false;                       // whether the node was ever streaming
    std::vector<uint32_t> _ownInputs, _ownOutputs; // ids of the node's ports; empty until all are known
    bool _hasLostPort = false;
    std::vector<Member> _members;

    // Set up before the node can have cycles, then used by the audio thread only: the loop changes neither
    // the streams nor their ports until the filter is destroyed, which waits for the audio thread to leave
    // it. Members are connected and disconnected by their links alone.
    std::vector<Stream> _inputs, _outputs;
    std::vector<HALStreamBlock> _inputBlocks, _outputBlocks; // of one cycle
    uint64_t _ratioNanoseconds = 0;                          // when the ratio was last reported

    // PipeWire unmaps a removed buffer on the loop's thread while cycles run. Before, _removeBuffer() closes
    // the port and waits while _usesBuffers is set; the audio thread sets it before it reads whether any port
    // is open, and clears it when it uses no buffer any more: not while the callbacks run. Sequentially
    // consistent: one of the two threads sees the other's store.
    std::atomic<bool> _usesBuffers{false};

    // Written by the audio thread only and read by the loop, which is woken after every change except of
    // _cycleCount, which it polls. Relaxed: each value is complete by itself and publishes no other data, and
    // a reader that sees values of two different cycles is woken again.
    std::atomic<uint32_t> _rate{0};
    std::atomic<uint32_t> _frameCount{0};
    std::atomic<double> _rateRatio{1.0};
    std::atomic<uint64_t> _cycleCount{0};
    std::atomic<uint64_t> _overloadCount{0};
};
