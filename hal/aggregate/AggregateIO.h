#pragma once

#include "AggregateHost.h"
#include "AggregateTrack.h"

#include <array>

/// One run of an aggregate's cycles under one leader: IO callbacks on every sub-device that is there. The leader's
/// cycle is the aggregate's; the others' frames come and go through their tracks. Tracks come and go while it runs;
/// another leader, or another layout, is another run.
/// Threads:   control functions on one thread at a time, never on an IO thread.
/// Real time: the callbacks.
/// Waits:     detach() and the end for cycles under way.
class AggregateIO final {
public:
    struct Leader {
        size_t place; ///< among the sub-devices
        AggregateTrackShape shape;
    };
    /// The sub-devices' streams in their order; absent ones keep their place, and are silent. `sampleTime` is that of
    /// the first cycle, and afterwards of the next one: it outlives the run, so that time never goes back.
    AggregateIO(AggregateHost& host, CXRef<HALIOProcTable> table, std::vector<AggregateTrackShape> layout,
                Leader leader, std::atomic<uint64_t>& sampleTime);
    ~AggregateIO();
    AggregateIO(const AggregateIO&) = delete;
    AggregateIO& operator=(const AggregateIO&) = delete;

    /// Starts the leader's cycles.
    [[nodiscard]] HALStatus start();
    size_t leaderPlace() const noexcept { return _leader.place; }
    const AggregateTrackShape& leaderShape() const noexcept { return _leader.shape; }

    /// Whether the streams of any sub-device are not those that it was made for.
    bool layoutDiffers(const std::vector<AggregateTrackShape>& layout) const;

    /// Lets a sub-device's frames pass. A status when it does not start.
    HALStatus attach(size_t place, const AggregateTrackShape& shape, bool isCompensated);
    /// Ends that; its channels are silent.
    void detach(size_t place);
    /// What is attached there; none for the leader and for absent ones.
    CXRef<AggregateTrack> track(size_t place) const { return _slots[place].track; }

private:
    struct Slot {
        CXRef<AggregateTrack> track; // control's
        AudioDeviceIOProcID procID = nullptr;
        // Handshake with the leader's cycle, which must not find a track that is being freed: control takes the
        // pointer out and waits until _cycle is even or has moved on; the leader makes _cycle odd before it looks.
        // Both sequentially consistent, so that at least one sees the other. The sub-device's own callback holds a
        // reference and is destroyed, waiting for its cycle, before the track goes.
        std::atomic<AggregateTrack*> live{nullptr};
        size_t firstInput = 0, inputs = 0; // places of its streams among the aggregate's
        size_t firstOutput = 0, outputs = 0;
    };

    void _lead(const AudioTimeStamp& now, const AudioBufferList* input, const AudioTimeStamp* inputTime,
               AudioBufferList* output, const AudioTimeStamp* outputTime) noexcept CX_REALTIME;
    void _runCycle(HALCycle& cycle, const AudioTimeStamp& leaderNow) noexcept CX_REALTIME;
    void _followTime(const AudioTimeStamp& now, uint32_t frameCount) noexcept CX_REALTIME;

    AggregateHost& _host;
    const CXRef<HALIOProcTable> _table;
    const Leader _leader;
    const std::vector<AggregateTrackShape> _layout;
    std::vector<Slot> _slots;
    AudioDeviceIOProcID _leaderProc = nullptr;

    // The leader's IO thread's.
    std::vector<HALStreamBlock> _input, _output; // of the whole aggregate
    std::vector<AggregateTrack*> _liveTracks;
    std::vector<float> _silence; // what absent sub-devices hear
    std::vector<float> _nowhere; // and where what they would play goes
    std::atomic<uint64_t>&
        _sampleTime;          // of the next cycle; read by who makes the next run, after this one's end
    double _timeOffset = 0.0; // aggregate's sample time less the leader's
    double _nextLeaderTime = 0.0;
    bool _hasRun = false;

    std::atomic<uint32_t> _cycle{0}; // odd while the leader's cycle runs: see Slot::live
};
