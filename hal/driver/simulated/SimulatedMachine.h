#pragma once

#include "HALHardwareDriver.h"
#include "SimulatedFaults.h"
#include "SimulatedScheduler.h"

/// What the devices of a simulated computer share.
/// Threads: any; each part has its own rule.
class SimulatedMachine final : public CXObject {
public:
    static CXRef<SimulatedMachine> init(bool isStepped)
    {
        return CXRef<SimulatedMachine>::adopt(new SimulatedMachine(isStepped));
    }

    SimulatedFaults faults;
    SimulatedScheduler scheduler;

    // One change of the hardware at a time, from its first step to the sink's last. Taken before any other
    // lock.
    std::mutex scriptMutex;
    HALDriverSink* sink = nullptr; // under scriptMutex; null before start() and after stop()

    // Which run each device is in. Held for look-ups only.
    std::mutex membershipMutex;

private:
    explicit SimulatedMachine(bool isStepped) : scheduler(isStepped) {}
    ~SimulatedMachine() override = default;
};
