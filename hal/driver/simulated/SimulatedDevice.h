#pragma once

#include "SimulatedDeviceDescription.h"
#include "SimulatedMachine.h"

#include <functional>
#include <mutex>
#include <random>

/// The driver of a simulated device: its description, its clock, and its part of a cycle before and after the
/// callbacks.
/// Threads: any; the functions of the cycle on the IO thread of the device's run, with lock() held.
/// Waits:   every function except those of the cycle waits for a running cycle, except on the IO thread.
class SimulatedDevice final : public SimulatedRunMember {
public:
    static CXRef<SimulatedDevice> initWithDescription(SimulatedDeviceDescription description,
                                                      const CXRef<SimulatedMachine>& machine);

    SimulatedDeviceDescription currentDescription() const;
    /// The state of the description. Does not wait for a cycle.
    HALDeviceState state() const;
    const std::string& uid() const noexcept { return _uid; }
    /// Changes the description between two cycles and reports the change. A running device continues with the
    /// new description. Returns '!dev' if the device is no longer plugged in.
    HALStatus alter(const std::function<void(SimulatedDeviceDescription&)>& change);
    /// The device's ID for clients; 0 before the device was reported.
    AudioObjectID objectID() const noexcept { return _objectID; }
    void setObjectID(AudioObjectID deviceID) noexcept { _objectID = deviceID; }
    /// Marks the device as unplugged; its cycles have ended on return. Returns false if it was already
    /// unplugged.
    bool unplug();
    /// Returns false if the device is not running.
    bool loseCycles(uint64_t count);

    HALStatus setNominalSampleRate(double rate, HALDeadline deadline) override;
    HALStatus setBufferFrameSize(uint32_t frameCount, HALDeadline deadline) override;
    HALStatus setVolume(HALDirection direction, uint32_t element, float scalar,
                        HALDeadline deadline) override;
    HALStatus setMuted(HALDirection direction, bool muted, HALDeadline deadline) override;
    HALStatus setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline deadline) override;
    HALStatus startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline) override;
    void stopIO() override;
    HALStatus startTogether(std::span<const HALGroupMember> members, const CXRef<HALIOProcTable>& table,
                            HALDeadline deadline, CXRef<HALGroupIO>& group) override;

    std::unique_lock<std::recursive_mutex> lock() const override { return std::unique_lock(_mutex); }
    void begin(uint64_t firstCycleTicks) override;
    uint64_t nextCycleTicks() const override;
    uint64_t cycleTicks() const override;
    double nominalSampleRate() const override { return _description.state.nominalSampleRate; }
    HALCycle beginCycle(uint64_t lostCycles) override;
    void runCallbacks(const HALCycle& cycle, bool isMixed) override;
    bool hasCallbacks() const noexcept override { return bool(_table); }
    void endCycle() override;
    void reportOverload() override;

private:
    class Group;

    SimulatedDevice(SimulatedDeviceDescription description, const CXRef<SimulatedMachine>& machine);
    ~SimulatedDevice() override;

    HALStatus _write(const std::function<void(SimulatedDeviceDescription&)>& change);
    CXRef<SimulatedRun> _run() const;
    void _leaveRun();
    HALStatus _runAlone(const CXRef<SimulatedRun>& own);

    // Everything below is called with lock() held.
    bool _isPrepared() const;
    void _prepare();
    void _prepareBetweenCycles();
    void _anchor(double ticks);
    double _ticksPerFrame() const;
    double _ticksAt(uint64_t sampleTime) const;
    double _ticksLate();
    AudioTimeStamp _stampAt(double sampleTime, double ticksLate) const;
    void _hear();
    void _play();
    float _gain(HALDirection direction, uint32_t channel) const;
    void _applyVolume(HALDirection direction, std::vector<float>& samples) const;

    const CXRef<SimulatedMachine> _machine;
    const std::string _uid;
    std::atomic<bool> _isPluggedIn{true};
    std::atomic<AudioObjectID> _objectID{kAudioObjectUnknown};
    CXRef<SimulatedRun> _currentRun; // guarded by the membership mutex; null while not running
    bool _isInGroup = false;         // guarded by the membership mutex

    mutable std::mutex _stateMutex; // locked after every other lock
    HALDeviceState _state;          // a copy of that in _description

    // Held during a cycle. Recursive, because a callback may change the device that calls it.
    mutable std::recursive_mutex _mutex;
    SimulatedDeviceDescription _description;
    std::minstd_rand _random;     // determines how late cycles are
    CXRef<HALIOProcTable> _table; // of the device's own callbacks; null unless startIO() is in effect
    uint64_t _sampleTime = 0;     // of the next cycle
    uint64_t _anchorSampleTime = 0;
    double _anchorTicks = 0.0;
    bool _isInCycle = false;
    uint32_t _blockFrames = 0; // of the blocks below
    bool _mustPrepare = false; // a callback has changed the description: prepare after the cycle

    // The samples of a direction, all channels interleaved, and the same samples divided into streams. [0]
    // input, [1] output.
    std::array<std::vector<float>, 2> _samples;
    std::array<std::vector<std::vector<float>>, 2> _streams;
    std::array<std::vector<HALStreamBlock>, 2> _blocks;
    std::vector<std::vector<float>> _mixedStreams; // the output of its own callbacks, in a group
    std::vector<HALStreamBlock> _mixedBlocks;
};
