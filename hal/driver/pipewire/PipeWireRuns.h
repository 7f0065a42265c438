#pragma once

#include "PipeWireDevice.h"
#include "PipeWireRun.h"
#include "PipeWireTimer.h"

#include <map>
#include <memory>
#include <span>

/// Callback interface of the runs' owner. Called on the loop's thread.
class PipeWireRunsClient {
public:
    /// The device's clock, or whether it runs or is stalled, has changed: its state must be reported again.
    virtual void runChanged(PipeWireDevice& device) = 0;
    /// All runs have been checked: requested changes may have taken effect.
    virtual void runsUpdated() = 0;

protected:
    ~PipeWireRunsClient() = default;
};

/// All IO of a process: one run for each device and each group that was started. All runs share one
/// descriptor and their timers.
/// Threads: the loop's.
class PipeWireRuns {
public:
    using Reply = CXRef<PipeWireReply>;

    PipeWireRuns(PipeWireLoop& loop, PipeWireSession& session, const PipeWireMirror& mirror,
                 PipeWireRunsClient& client);
    ~PipeWireRuns();
    PipeWireRuns(const PipeWireRuns&) = delete;
    PipeWireRuns& operator=(const PipeWireRuns&) = delete;

    // -- One device

    /// Replies 'what' if the device has no cycle by the deadline; the run is then ended.
    void start(PipeWireDevice& device, const CXRef<HALIOProcTable>& table, PipeWireRun::Time deadline,
               const Reply& reply);
    void stop(PipeWireDevice& device);

    // -- Several devices in one cycle

    /// Replies 'nope' if they cannot share cycles; else as start(). `number` is the group's until
    /// stopGroup().
    void startGroup(uint64_t number, std::vector<PipeWireRun::Member> members,
                    const CXRef<HALIOProcTable>& table, PipeWireRun::Time deadline, const Reply& reply);
    /// The member at `place` has disappeared (null) or returned. Returns 'nope' if the device cannot share
    /// the group's cycles.
    HALStatus setGroupMember(uint64_t number, size_t place, PipeWireDevice* device,
                             const CXRef<HALIOProcTable>& table);
    void stopGroup(uint64_t number);

    // -- Changes
    void setClockSettings(const PipeWireClockSettings& settings);
    /// Ask the graph for another rate (Hz) or cycle length for all runs of the device, including groups.
    void setRate(const PipeWireDevice& device, double rate);
    void setFrameCount(const PipeWireDevice& device, uint32_t frameCount);
    void deviceChanged(const PipeWireDevice& device);
    void deviceDisappears(PipeWireDevice& device);
    void connectionLost();
    void portAppeared() const { _wake.signal(); }

private:
    using Key = std::pair<const PipeWireDevice*, uint64_t>; // a device and 0, or null and a group's number

    PipeWireRun* _run(const Key& key) const;
    PipeWireRun::Setup _setupOf(std::vector<PipeWireRun::Member> members, const CXRef<HALIOProcTable>& table,
                                PipeWireRun::Time deadline) const;
    bool _canJoin(const PipeWireRun& run, const PipeWireDevice& device) const;
    void _begin(const Key& key, PipeWireRun::Setup setup, const Reply& reply);
    void _end(const Key& key);
    void _update();
    void _publish(const PipeWireRun& run);

    const PipeWireWake _wake; // declared before _runs, whose audio threads signal it
    const PipeWireRun::Environment _environment;
    PipeWireRunsClient& _client;
    PipeWireClockSettings _settings;
    std::map<Key, std::unique_ptr<PipeWireRun>> _runs;
    std::vector<PipeWireDevice*> _ending; // our IO has ended, but their nodes still report that they run
    PipeWireTimer _ended;
    PipeWireTimer _due;
};
