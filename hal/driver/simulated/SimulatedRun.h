#pragma once

#include "HALDeviceDriver.h"

#include <mutex>
#include <optional>

/// The interface of a simulated device to its run.
/// Threads: the IO thread of the run, with lock() held.
class SimulatedRunMember : public HALDeviceDriver {
public:
    virtual std::unique_lock<std::recursive_mutex> lock() const = 0;
    /// Begins cycles, the first of which is due at `firstCycleTicks`. Sample time continues where it stopped.
    virtual void begin(uint64_t firstCycleTicks) = 0;
    virtual uint64_t nextCycleTicks() const = 0;
    virtual uint64_t cycleTicks() const = 0;
    virtual double nominalSampleRate() const = 0; // Hz
    /// Returns the cycle that is due, with the device's input.
    virtual HALCycle beginCycle(uint64_t lostCycles) = 0;
    /// Runs the device's own callbacks. If `isMixed`, their output is added to the output blocks.
    virtual void runCallbacks(const HALCycle& cycle, bool isMixed) = 0;
    virtual bool hasCallbacks() const noexcept = 0;
    /// Plays the output blocks and advances to the next cycle.
    virtual void endCycle() = 0;
    virtual void reportOverload() = 0;
};

/// Simulated devices that run in one cycle: one device with its own callbacks, or the members of a group.
/// Threads: any; runCycle() on one thread at a time, the IO thread.
/// Waits:   every function except runCycle() waits for a running cycle, except on the IO thread.
class SimulatedRun final : public CXObject {
public:
    /// The run of a single device.
    static CXRef<SimulatedRun> initWithDevice(const CXRef<SimulatedRunMember>& device);
    /// The run of `members` in one cycle through `table`. Absent members have no device.
    static CXRef<SimulatedRun> initWithGroup(std::span<const HALGroupMember> members,
                                             const CXRef<HALIOProcTable>& table);

    /// Begins cycles, the first of which is due one cycle after `nowTicks`.
    void begin(uint64_t nowTicks);
    /// A device that joins runs from the next cycle that is due. If no other is present, its first cycle is
    /// due one cycle after `nowTicks`. A null device leaves.
    void setMember(size_t place, const CXRef<SimulatedRunMember>& device, const CXRef<HALIOProcTable>& table,
                   uint64_t nowTicks);
    /// The device's place in the group; nothing if it is not a member.
    std::optional<size_t> placeOf(const SimulatedRunMember& device) const;
    std::vector<CXRef<SimulatedRunMember>> presentMembers() const;
    /// Ends the run. No cycle calls a callback afterwards.
    void end();

    /// When the next cycle is due, in host ticks, and how long it is. UINT64_MAX and 0 while no device is
    /// present.
    uint64_t nextCycleTicks() const;
    uint64_t cycleTicks() const;
    /// The number of cycles run so far.
    uint64_t cycleCount() const;
    /// Runs one cycle, at its due time.
    void runCycle();
    /// Makes the next cycle begin `count` cycles late.
    void loseCycles(uint64_t count);

private:
    struct Member {
        CXRef<SimulatedRunMember> device; // null while absent
        CXRef<HALIOProcTable> table;      // for reporting its overloads
        std::vector<uint32_t> inputChannels, outputChannels;
    };

    SimulatedRun() = default;
    ~SimulatedRun() override = default;

    // Everything below is called with _mutex locked.
    const CXRef<SimulatedRunMember>& _leader() const;
    void _prepareGroup(uint32_t frameCount);
    void _runGroup(uint64_t lostCycles);
    void _reportOverload();
    void _addBlocks(const Member& member, const HALCycle& own, uint32_t frameCount);
    double _followTime(const HALCycle& leaders, uint64_t lostCycles);

    // Held during a cycle and locked before the devices' locks. Recursive, because a callback may unplug a
    // member.
    mutable std::recursive_mutex _mutex;
    std::vector<Member> _members;
    CXRef<HALIOProcTable> _groupTable; // null for a single device
    uint64_t _groupSampleTime = 0;     // of the next cycle
    uint32_t _groupFrames = 0;         // the frames per cycle that buffers are allocated for
    uint64_t _cycles = 0;
    uint64_t _lost = 0;
    bool _isEnded = false;

    // The group's cycle: the members' blocks, in order, and buffers in place of those of absent members.
    std::vector<HALStreamBlock> _input, _output;
    std::vector<float> _silence, _discarded;
};
