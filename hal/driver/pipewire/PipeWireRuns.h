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
    /// The device is to be described anew: its clock, whether it runs or whether it is stalled.
    virtual void runChanged(PipeWireDevice& device) = 0;
    /// After a look at all runs: what was asked of them may show now.
    virtual void runsUpdated() = 0;

protected:
    ~PipeWireRunsClient() = default;
};

/// All IO of a process: one run for each device and each group that was started. One timer and one descriptor
/// serve them all.
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

    /// 'what' when the device has no cycle by the deadline; then nothing is left of the run.
    void start(PipeWireDevice& device, const CXRef<HALIOProcTable>& table, PipeWireRun::Time deadline,
               const Reply& reply);
    void stop(PipeWireDevice& device);

    // -- Several in one cycle

    /// 'nope' when they cannot share cycles; else as start(). `number` names the group until stopGroup().
    void startGroup(uint64_t number, std::vector<PipeWireRun::Member> members,
                    const CXRef<HALIOProcTable>& table, PipeWireRun::Time deadline, const Reply& reply);
    /// The member has gone (null), or is there again. 'nope' when the device cannot share the group's cycles.
    HALStatus setGroupMember(uint64_t number, size_t place, PipeWireDevice* device,
                             const CXRef<HALIOProcTable>& table);
    void stopGroup(uint64_t number);

    // -- Changes
    void setClockSettings(const PipeWireClockSettings& settings);
    /// Asks the graph of the device's runs, a group's included, for another rate (Hz) or cycle length.
    void setRate(const PipeWireDevice& device, double rate);
    void setFrameCount(const PipeWireDevice& device, uint32_t frameCount);
    void deviceChanged(const PipeWireDevice& device);
    void deviceDisappears(PipeWireDevice& device);
    void connectionLost();
    void portAppeared() const { _wake.signal(); }

private:
    using Key = std::pair<const PipeWireDevice*, uint64_t>; // a device alone, or the number of a group

    PipeWireRun* _run(const Key& key) const;
    PipeWireRun::Setup _setupOf(std::vector<PipeWireRun::Member> members, const CXRef<HALIOProcTable>& table,
                                PipeWireRun::Time deadline) const;
    bool _canJoin(const PipeWireRun& run, const PipeWireDevice& device) const;
    void _begin(const Key& key, PipeWireRun::Setup setup, const Reply& reply);
    void _end(const Key& key);
    void _update();
    void _publish(const PipeWireRun& run);

    const PipeWireWake _wake; // before the runs, whose audio threads signal it
    const PipeWireRun::Environment _environment;
    PipeWireRunsClient& _client;
    PipeWireClockSettings _settings;
    std::map<Key, std::unique_ptr<PipeWireRun>> _runs;
    std::vector<PipeWireDevice*> _ending; // devices whose node still says that it runs, because of us
    PipeWireTimer _ended;
    PipeWireTimer _due;
};
