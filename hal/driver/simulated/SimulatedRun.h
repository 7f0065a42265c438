#pragma once

#include "HALDeviceDriver.h"

#include <mutex>
#include <optional>

class SimulatedDevice;

/// Simulated devices that run in one cycle: one device with its own callbacks, or the members of a group.
/// Threads: any; runCycle() on one thread at a time, the IO thread.
/// Waits:   all but runCycle() wait for a running cycle, except on the IO thread.
class SimulatedRun final : public CXObject {
public:
    /// A device by itself.
    static CXRef<SimulatedRun> initWithDevice(const CXRef<SimulatedDevice>& device);
    /// `members` in one cycle through `table`. Absent ones have no device.
    static CXRef<SimulatedRun> initWithGroup(std::span<const HALGroupMember> members,
                                             const CXRef<HALIOProcTable>& table);

    /// The first cycle is due one cycle after `nowTicks`.
    void begin(uint64_t nowTicks);
    void setMember(size_t place, const CXRef<SimulatedDevice>& device, const CXRef<HALIOProcTable>& table);
    /// The device's place in a group; nothing when it is no member.
    std::optional<size_t> placeOf(const SimulatedDevice& device) const;
    std::vector<CXRef<SimulatedDevice>> presentDevices() const;
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
        CXRef<SimulatedDevice> device; // null while absent
        CXRef<HALIOProcTable> table;   // for its overloads
        std::vector<uint32_t> inputChannels, outputChannels;
    };

    SimulatedRun() = default;
    ~SimulatedRun() override = default;

    // Everything below is called under the lock.
    const CXRef<SimulatedDevice>& _leader() const;
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
