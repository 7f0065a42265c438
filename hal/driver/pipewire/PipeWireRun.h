#pragma once

#include "PipeWireDevice.h"
#include "PipeWireReply.h"

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

/// IO of one device or of a group, from its start to its stop. While it is to run it does: a link or the node
/// that another client has destroyed, suspended or paused is made anew, 20 ms later at first and at least
/// once a second while that fails. That is reported as an overload; a member that gets no cycles is stalled
/// meanwhile. One member's rate or cycle length, once asked for, is that of all members.
/// Threads: the loop's.
class PipeWireRun final : public PipeWireDeviceRun {
public:
    using Time = std::chrono::steady_clock::time_point;

    struct Member {
        PipeWireDevice* device = nullptr; ///< null while absent
        CXRef<HALIOProcTable> table;      ///< the device's own; null while absent
        PipeWireChannels channels;
    };
    /// What every run of a process works with; it outlives them.
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
        PipeWireTimeline* timeline = nullptr; ///< to go on with, outlives the run; null: a new one
        Time deadline;                        ///< of the first cycle
    };

    /// Begins to start: `reply` gets the status once every member has cycles. Without that by the deadline,
    /// hasFailed().
    PipeWireRun(const Environment& environment, Setup setup, CXRef<PipeWireReply> reply);
    ~PipeWireRun();
    PipeWireRun(const PipeWireRun&) = delete;
    PipeWireRun& operator=(const PipeWireRun&) = delete;

    // -- Changes
    /// The member at `place` has gone (null), or is there again.
    void setDevice(size_t place, PipeWireDevice* device, const CXRef<HALIOProcTable>& table);
    void deviceChanged(const PipeWireDevice& device) override;
    void deviceDisappears(const PipeWireDevice& device) override;
    void connectionLost();
    void setWantedTiming(const PipeWireDeviceIO::WantedTiming& wanted) override;
    /// The graph keeps the rate that another client forced for a while: asks for our own again.
    void restoreRate(Time now);

    /// Looks at everything that may have changed, and does what is due. Returns when to be called again at
    /// the latest.
    Time update(Time now);
    /// Whether members are to be described anew since the last call.
    bool takeChanged() { return std::exchange(_changed, false); }
    /// Finishes the start's reply when it is over. Call it when the members have been described.
    void finishStart();

    // -- What is known
    const std::vector<Member>& members() const noexcept { return _members; }
    const PipeWireDeviceIO::WantedTiming& wantedTiming() const noexcept override { return _wanted; }
    bool hasFailed() const noexcept { return _hasFailed; } ///< the start has, and the run is to be ended
    bool isStalled(const PipeWireDevice& device) const override;
    PipeWireClockSeen clock() const noexcept override { return _clock; }

private:
    enum class Remedy { None, Links, Node };
    struct Linked {
        std::optional<PipeWireEnds> ends; // nothing: not linked
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
    bool _hasStarted() const;
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
    std::unique_ptr<PipeWireDeviceIO> _io; // null without a connection

    PipeWireClockSeen _clock; // of the last node that had cycles
    uint64_t _cyclesSeen = 0;
    uint64_t _overloadsSeen = 0;
    Time _lastCycle; // when one was last seen, or the node was made
    bool _hasCycles = false;

    std::optional<Time> _retryAt; // while something is wrong
    Time _lastRetry;
    std::chrono::milliseconds _retryDelay;
    bool _serverAnswers = false; // since something is wrong: one that hangs is not asked for more
    std::optional<Time> _restoringUntil;

    CXRef<PipeWireReply> _startReply; // while it starts
    const Time _startDeadline;
    bool _hasFailed = false;
    bool _changed = false;
};
