#pragma once

#include "HALDeviceDriver.h"

#include <mutex>
#include <optional>

/// A simulated device as the run sees it.
/// Threads: the IO thread of the run, with lock() held.
class SimulatedRunMember : public HALDeviceDriver {
public:
    virtual std::unique_lock<std::recursive_mutex> lock() const = 0;
    /// The first cycle is due at `firstCycleTicks`; sample time goes on where it stopped.
    virtual void begin(uint64_t firstCycleTicks) = 0;
    virtual uint64_t nextCycleTicks() const = 0;
    virtual uint64_t cycleTicks() const = 0;
    /// The cycle that is due, with the input that the device hears.
    virtual HALCycle beginCycle(uint64_t lostCycles) = 0;
    /// Runs the device's own callbacks. `isMixed`: what they play is added to the output blocks.
    virtual void runCallbacks(const HALCycle& cycle, bool isMixed) = 0;
    virtual bool hasCallbacks() const noexcept = 0;
    /// Plays the output blocks; the next cycle follows.
    virtual void endCycle() = 0;
    virtual void reportOverload() = 0;
};

/// Simulated devices that run in one cycle: one device with its own callbacks, or the members of a group.
/// Threads: any; runCycle() on one thread at a time, the IO thread.
/// Waits:   all but runCycle() wait for a running cycle, except on the IO thread.
class SimulatedRun final : public CXObject {
public:
    /// A device by itself.
    static CXRef<SimulatedRun> initWithDevice(const CXRef<SimulatedRunMember>& device);
    /// `members` in one cycle through `table`. Absent ones have no device.
    static CXRef<SimulatedRun> initWithGroup(std::span<const HALGroupMember> members,
                                             const CXRef<HALIOProcTable>& table);

    /// The first cycle is due one cycle after `nowTicks`.
    void begin(uint64_t nowTicks);
    void setMember(size_t place, const CXRef<SimulatedRunMember>& device, const CXRef<HALIOProcTable>& table);
    /// The device's place in a group; nothing when it is no member.
    std::optional<size_t> placeOf(const SimulatedRunMember& device) const;
    std::vector<CXRef<SimulatedRunMember>> presentMembers() const;
    /// No cycle runs any callback afterwards.
    void end();

    /// When the next cycle is due, in host ticks; UINT64_MAX while no device is present. And how long it is.
    uint64_t nextCycleTicks() const;
    uint64_t cycleTicks() const;
    /// How many cycles it has run.
    uint64_t cycleCount() const;
    /// One cycle, as of its due time.
    void runCycle();
    /// The next cycle comes `count` cycles later than due.
    void loseCycles(uint64_t count);

private:
    struct Member {
        CXRef<SimulatedRunMember> device; // null while absent
        CXRef<HALIOProcTable> table;      // for its overloads
        std::vector<uint32_t> inputChannels, outputChannels;
    };

    SimulatedRun() = default;
    ~SimulatedRun() override = default;

    // Everything below is called under the lock.
    const CXRef<SimulatedRunMember>& _leader() const;
    void _prepareGroup(uint32_t frameCount);
    void _runGroup(uint64_t lostCycles);
    void _reportOverload();
    void _addBlocks(const Member& member, const HALCycle& own, uint32_t frameCount);
    double _followTime(const HALCycle& leaders, uint64_t lostCycles);

    // Held through a cycle, and taken before the devices' locks; recursive, because a callback may unplug a
    // member.
    mutable std::recursive_mutex _mutex;
    std::vector<Member> _members;
    CXRef<HALIOProcTable> _groupTable; // none for a device by itself
    uint64_t _groupSampleTime = 0;     // of the next cycle
    uint32_t _groupFrames = 0;         // room made for cycles of so many frames
    uint64_t _cycles = 0;
    uint64_t _lost = 0;
    bool _isEnded = false;

    // The group's cycle: the members' blocks, in order, and a place for absent ones.
    std::vector<HALStreamBlock> _input, _output;
    std::vector<float> _silence, _discarded;
};
