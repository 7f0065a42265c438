#pragma once

#include "HALIOProcTable.h"
#include "SimulatedDeviceDescription.h"

#include <functional>
#include <mutex>
#include <vector>

/// The hardware side of one simulated device: its clock, and what happens in a cycle around the callbacks.
/// Threads: any; runCycle() on one thread at a time, the device's IO thread.
/// Waits:   all but runCycle() wait for a running cycle, except on the IO thread.
class SimulatedDevice final : public CXObject {
public:
    static CXRef<SimulatedDevice> initWithDescription(const SimulatedDeviceDescription& description);

    /// Changes the description between two cycles and answers the new one. A running device goes on with it.
    SimulatedDeviceDescription alter(const std::function<void(SimulatedDeviceDescription&)>& change);
    SimulatedDeviceDescription currentDescription() const;

    /// The first cycle is due one cycle after `nowTicks`. Sample time goes on where it last stopped.
    void begin(const CXRef<HALIOProcTable>& table, uint64_t nowTicks);
    /// No cycle runs the callbacks afterwards.
    void end();

    /// When the next cycle is due, in host ticks, and how long it is.
    uint64_t nextCycleTicks() const;
    uint64_t cycleTicks() const;
    /// How many cycles it has run since it was made.
    uint64_t cycleCount() const;

    /// The next cycle comes `count` cycles later than due, and tells of it.
    void loseCycles(uint64_t count);
    /// One cycle, as of its due time.
    void runCycle();

private:
    explicit SimulatedDevice(const SimulatedDeviceDescription& description);
    ~SimulatedDevice() override = default;

    // Everything below is called under the lock.
    void _prepare();
    void _anchor(double ticks);
    double _ticksPerFrame() const;
    double _ticksAt(uint64_t sampleTime) const;
    AudioTimeStamp _stampAt(double sampleTime) const;
    void _hear();
    void _play();
    float _gain(HALDirection direction, uint32_t channel) const;
    void _applyVolume(HALDirection direction, std::vector<float>& samples) const;

    // Held through a cycle. On the IO thread, inside the cycle, it is held already: see Guard.
    mutable std::mutex _mutex;
    class Guard;

    SimulatedDeviceDescription _description;
    CXRef<HALIOProcTable> _table; // none while not running
    uint64_t _sampleTime = 0;     // of the next cycle
    uint64_t _anchorSampleTime = 0;
    double _anchorTicks = 0.0;
    uint64_t _cycles = 0;
    uint64_t _lost = 0;

    // One direction's samples, all channels interleaved, and the same cut in streams. [0] input, [1] output.
    std::array<std::vector<float>, 2> _samples;
    std::array<std::vector<std::vector<float>>, 2> _streams;
    std::array<std::vector<HALStreamBlock>, 2> _blocks;
};
