#pragma once

#include "AggregateTrack.h"
#include "HALDevice.h"

/// One run of an aggregate's cycles under one leader.
///
/// The sub-devices that can share the leader's cycle run with it as one group of the driver, with no ring
/// buffer between them. Each of the others has an IO callback and a track. Sub-devices may disappear and
/// reappear during the run. Another leader outside the group, another rate or another layout requires a new
/// run.
/// Threads:   control functions on one thread at a time, never on an IO thread.
/// Real time: the callbacks.
/// Waits:     start(), attach() and setMember() wait for the driver until their deadline; detach() and the
///            destructor wait for running cycles.
class AggregateIO final {
public:
    /// The configuration, fixed for the run.
    struct Plan {
        size_t leader = 0;         ///< the leader's place among the sub-devices
        std::vector<size_t> group; ///< places in the leader's cycle, in order, with the leader's
        double sampleRate = 0.0;   ///< the leader's, Hz
        uint32_t maxFrames = 0;    ///< the longest cycle that buffers are allocated for
        std::vector<AggregateTrackShape> layout; ///< of every place; absent sub-devices keep theirs
    };
    using Devices = std::vector<CXRef<HALDevice>>; ///< by place; null while absent

    /// `sampleTime` is the sample time of the first cycle, and during the run that of the next cycle. It
    /// outlives the run, so that sample time never goes back.
    AggregateIO(CXRef<HALIOProcTable> table, Plan plan, std::atomic<uint64_t>& sampleTime);
    ~AggregateIO();
    AggregateIO(const AggregateIO&) = delete;
    AggregateIO& operator=(const AggregateIO&) = delete;

    /// Starts the cycles of the leader and its group. Returns 'nope' if the driver cannot run these devices
    /// in one cycle.
    [[nodiscard]] HALStatus start(const Devices& devices, HALDeadline deadline);
    const Plan& plan() const noexcept { return _plan; }
    bool isInGroup(size_t place) const noexcept;
    /// Called when the member at `place` has disappeared (null) or reappeared. The cycles of the others
    /// continue.
    void setMember(size_t place, const CXRef<HALDevice>& device);

    /// Starts a sub-device outside the group and its track, for cycles of the leader of `leaderFrames`.
    /// Returns an error status if it does not start.
    HALStatus attach(size_t place, const CXRef<HALDevice>& device, const AggregateTrackShape& shape,
                     uint32_t leaderFrames, bool isCompensated, HALDeadline deadline);
    /// Ends the sub-device's track; its channels are silent from then on.
    void detach(size_t place);
    /// The track at `place`; null for members of the group and absent sub-devices.
    const CXRef<AggregateTrack>& track(size_t place) const { return _slots[place].track; }

private:
    struct Slot {
        CXRef<HALDevice> device;     // control threads only: a running member, or the device of the track
        CXRef<AggregateTrack> track; // control threads only
        AudioDeviceIOProcID procID = nullptr;
        // Handshake with the leader's cycle, which must not use a track that is being freed: control removes
        // the pointer and waits until _cycle is even or has changed; the leader makes _cycle odd before it
        // loads the pointer. Both are sequentially consistent, so at least one sees the other's change. The
        // sub-device's callback holds a reference to the track; the callback is destroyed, which waits for
        // its cycle, before the track is freed.
        std::atomic<AggregateTrack*> live{nullptr};
        size_t firstInput = 0, inputs = 0; // of the aggregate's streams, those of this sub-device
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
    CXRef<HALGroupIO> _group;           // null while the group has only the leader
    CXRef<HALIOProcTable> _groupTable;  // calls _lead() in the group's cycle
    CXRef<HALIOProcTable> _leaderTable; // of the cycles that call _lead(), with their rate; set before them

    // Used by the leader's IO thread only.
    std::vector<HALStreamBlock> _input, _output;           // of the whole aggregate
    std::vector<HALStreamBlock> _groupInput, _groupOutput; // of the group, in its order
    std::vector<AggregateTrack*> _liveTracks;
    std::vector<float> _silence;   // input of absent sub-devices
    std::vector<float> _discarded; // output for absent sub-devices
    std::atomic<uint64_t>&
        _sampleTime;          // of the next cycle; read to create the next run, after this one has ended
    double _timeOffset = 0.0; // the aggregate's sample time minus the leader's
    double _nextLeaderTime = 0.0;
    bool _hasRun = false;

    std::atomic<uint32_t> _cycle{0}; // odd during the leader's cycle; see Slot::live
};
