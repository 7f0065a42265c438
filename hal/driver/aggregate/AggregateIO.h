#pragma once

#include "AggregateTrack.h"
#include "HALDevice.h"

/// One run of an aggregate's cycles under one leader.
///
/// The sub-devices that can share the leader's cycle run with it as one group of the driver's, without a ring
/// between; every other one has an IO callback of its own and a track. Sub-devices come and go while it runs;
/// another leader outside the group, another rate or another layout is another run.
/// Threads:   control functions on one thread at a time, never on an IO thread.
/// Real time: the callbacks.
/// Waits:     start(), attach(), setMember() for the driver until their deadline; detach() and the end for
///            cycles under way.
class AggregateIO final {
public:
    /// How it runs; fixed for the run.
    struct Plan {
        size_t leader = 0;         ///< its place among the sub-devices
        std::vector<size_t> group; ///< the places in the leader's cycle, in order, the leader's among them
        double sampleRate = 0.0;   ///< the leader's, Hz
        uint32_t maxFrames = 0;    ///< the longest cycle that there is room for
        std::vector<AggregateTrackShape> layout; ///< every place; absent ones keep theirs, silent
    };
    using Devices = std::vector<CXRef<HALDevice>>; ///< by place; null while absent

    /// `sampleTime` is that of the first cycle, and afterwards of the next one: it outlives the run, so that
    /// time never goes back.
    AggregateIO(CXRef<HALIOProcTable> table, Plan plan, std::atomic<uint64_t>& sampleTime);
    ~AggregateIO();
    AggregateIO(const AggregateIO&) = delete;
    AggregateIO& operator=(const AggregateIO&) = delete;

    /// Starts the cycles of the leader and its group. 'nope' when the driver does not run these together.
    [[nodiscard]] HALStatus start(const Devices& devices, HALDeadline deadline);
    const Plan& plan() const noexcept { return _plan; }
    bool isInGroup(size_t place) const noexcept;
    /// The member at `place` has gone (null), or is there again. The others' cycles go on.
    void setMember(size_t place, const CXRef<HALDevice>& device);

    /// Lets the frames of a sub-device outside the group pass, with cycles of the leader of `leaderFrames`. A
    /// status when it does not start.
    HALStatus attach(size_t place, const CXRef<HALDevice>& device, const AggregateTrackShape& shape,
                     uint32_t leaderFrames, bool isCompensated, HALDeadline deadline);
    /// Ends that; its channels are silent.
    void detach(size_t place);
    /// The track attached there; none in the group and for absent ones.
    const CXRef<AggregateTrack>& track(size_t place) const { return _slots[place].track; }

private:
    struct Slot {
        CXRef<HALDevice> device;     // control's: a running member, or the device of the track
        CXRef<AggregateTrack> track; // control's
        AudioDeviceIOProcID procID = nullptr;
        // Handshake with the leader's cycle, which must not find a track that is being freed: control takes
        // the pointer out and waits until _cycle is even or has moved on; the leader makes _cycle odd before
        // it looks. Both sequentially consistent, so that at least one sees the other. The sub-device's own
        // callback holds a reference and is destroyed, waiting for its cycle, before the track goes.
        std::atomic<AggregateTrack*> live{nullptr};
        size_t firstInput = 0, inputs = 0; // places of its streams among the aggregate's
        size_t firstOutput = 0, outputs = 0;
        bool isInGroup = false;
    };

    HALStatus _startGroup(const Devices& devices, HALDeadline deadline);
    AudioDeviceIOBlock _leadBlock();
    void _lead(const AudioTimeStamp& now, const AudioBufferList* input, const AudioTimeStamp* inputTime,
               AudioBufferList* output, const AudioTimeStamp* outputTime) noexcept CX_REALTIME;
    bool _takeGroupBlocks(const AudioBufferList* input, const AudioBufferList* output) noexcept CX_REALTIME;
    void _runCycle(HALCycle& cycle, const AudioTimeStamp& leaderNow) noexcept CX_REALTIME;
    void _followTime(const AudioTimeStamp& now, uint32_t frameCount) noexcept CX_REALTIME;

    const CXRef<HALIOProcTable> _table;
    const Plan _plan;
    std::vector<Slot> _slots;
    CXRef<HALGroupIO> _group;          // none while only the leader is in it
    CXRef<HALIOProcTable> _groupTable; // calls _lead() in the group's cycle

    // The leader's IO thread's.
    std::vector<HALStreamBlock> _input, _output;           // of the whole aggregate
    std::vector<HALStreamBlock> _groupInput, _groupOutput; // of the group, in its order
    std::vector<AggregateTrack*> _liveTracks;
    std::vector<float> _silence;   // the input of absent sub-devices
    std::vector<float> _discarded; // receives the output of absent sub-devices
    std::atomic<uint64_t>&
        _sampleTime;          // of the next cycle; read by the maker of the next run, after this one's end
    double _timeOffset = 0.0; // aggregate's sample time less the leader's
    double _nextLeaderTime = 0.0;
    bool _hasRun = false;

    std::atomic<uint32_t> _cycle{0}; // odd while the leader's cycle runs: see Slot::live
};
