#pragma once

#include "HALHardwareDriver.h"
#include "SimulatedFaults.h"
#include "SimulatedScheduler.h"

/// The parts that the devices of a simulated computer share.
/// Threads: any; each part has its own rule.
class SimulatedMachine final : public CXObject {
public:
    static CXRef<SimulatedMachine> init(bool isStepped)
    {
        return CXRef<SimulatedMachine>::adopt(new SimulatedMachine(isStepped));
    }

    SimulatedFaults faults;
    SimulatedScheduler scheduler;

    // Serialises changes of the hardware, including their reports to the sink. Locked before any other lock.
    std::mutex scriptMutex;
    HALDriverSink* sink = nullptr; // guarded by scriptMutex; null before start() and after stop()

    // Guards which run each device is in. Held for look-ups only.
    std::mutex membershipMutex;

private:
    explicit SimulatedMachine(bool isStepped) : scheduler(isStepped) {}
    ~SimulatedMachine() override = default;
};
