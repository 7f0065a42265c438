#pragma once

#include "PipeWireDevice.h"
#include "PipeWireReply.h"

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

/// IO of one device or of a group, from start to stop. Keeps the IO running: recreates a link or the node
/// that another client has destroyed, suspended or paused, 20 ms later at first, and retries at least once a
/// second until it succeeds. Reports a new interruption as an overload; a member that gets no cycles
/// meanwhile is stalled. A rate or cycle length that one member asks for applies to all members.
/// Threads: the loop's.
class PipeWireRun final : public PipeWireDeviceRun {
public:
    using Time = std::chrono::steady_clock::time_point;

    struct Member {
        PipeWireDevice* device = nullptr; ///< null while absent
        CXRef<HALIOProcTable> table;      ///< the device's own; null while absent
        PipeWireChannels channels;
    };
    /// Shared by all runs of a process; outlives them.
    struct Environment {
        PipeWireSession& session;
        const PipeWireMirror& mirror;
        const PipeWireWake& wake;
    };
    struct Setup {
        CXRef<HALIOProcTable> table;
        std::vector<Member> members;
        PipeWireDeviceIO::WantedTiming wanted;
        uint32_t maxFrames = 0;
        PipeWireTimeline* timeline = nullptr; ///< is continued, and outlives the run; null: a new one
        Time deadline;                        ///< of the first cycle
    };

    /// Begins the start. Finishes `reply` once every present member has cycles; if the deadline passes before
    /// that, hasFailed() becomes true.
    PipeWireRun(const Environment& environment, Setup setup, CXRef<PipeWireReply> reply);
    ~PipeWireRun();
    PipeWireRun(const PipeWireRun&) = delete;
    PipeWireRun& operator=(const PipeWireRun&) = delete;

    // -- Changes
    /// The member at `place` has disappeared (null) or returned.
    void setDevice(size_t place, PipeWireDevice* device, const CXRef<HALIOProcTable>& table);
    void deviceChanged(const PipeWireDevice& device) override;
    void deviceDisappears(const PipeWireDevice& device) override;
    void connectionLost();
    void setWantedTiming(const PipeWireDeviceIO::WantedTiming& wanted) override;
    /// Asks for our own rate again, because the graph keeps a rate that another client forced for a while.
    void restoreRate(Time now);

    /// Checks the node, its links and the members, and does what is due. Returns when to call it again.
    Time update(Time now);
    /// Returns whether the members' state has changed since the last call.
    bool takeChanged() { return std::exchange(_changed, false); }
    /// Finishes the start's reply if the start has succeeded. Call it after the members' state was reported.
    void finishStart();

    // -- Queries
    const std::vector<Member>& members() const noexcept { return _members; }
    const PipeWireDeviceIO::WantedTiming& wantedTiming() const noexcept override { return _wanted; }
    bool hasStarted() const noexcept override { return !_startReply; }
    bool hasFailed() const noexcept { return _hasFailed; } ///< the start has failed: end the run
    bool isStalled(const PipeWireDevice& device) const override;
    PipeWireClockSeen clock() const noexcept override { return _clock; }

private:
    enum class Remedy { None, Links, Node };
    struct Linked {
        std::optional<PipeWireEnds> ends; // nullopt: not linked
        Time since;
        bool isStalled = false;
    };

    std::optional<PipeWireEnds> _endsOf(const Member& member) const;
    void _makeIO(Time now);
    void _linkMember(size_t place);
    void _look(Time now);
    void _lookAtMembers(Time now);
    Remedy _remedy(Time now) const;
    void _retryWhenDue(Remedy remedy, Time now);
    bool _getsCycles(size_t place) const;
    bool _isComplete() const;
    bool _isAnyPresent() const;
    bool _isOfOneDevice() const;
    void _reportOverload();
    std::chrono::nanoseconds _patience() const;
    Time _nextLook(Time now) const;

    const Environment _environment;
    const CXRef<HALIOProcTable> _table;
    const uint32_t _maxFrames;
    PipeWireTimeline _ownTimeline;
    PipeWireTimeline& _timeline;
    std::vector<Member> _members;
    std::vector<Linked> _linked; // by member
    PipeWireDeviceIO::WantedTiming _wanted;
    std::unique_ptr<PipeWireDeviceIO> _io; // null after the connection is lost

    PipeWireClockSeen _clock; // of the last node that had cycles
    uint64_t _cyclesSeen = 0;
    uint64_t _overloadsSeen = 0;
    Time _lastCycle; // when a cycle was last seen, or the node was created
    bool _hasCycles = false;

    std::optional<Time> _retryAt; // set while a repair is due
    Time _lastRetry;
    bool _isInterrupted = false; // from a repair until every present member has cycles again
    std::chrono::milliseconds _retryDelay;
    bool _serverAnswers = false; // since the fault; a server that hangs gets no more requests
    std::optional<Time> _restoringUntil;

    CXRef<PipeWireReply> _startReply; // null once started
    const Time _startDeadline;
    bool _hasFailed = false;
    bool _changed = false;
};
