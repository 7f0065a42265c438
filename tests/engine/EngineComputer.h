#pragma once

#include "CXDispatchQueue.h"
#include "DXRAudioContext.h"
#include "DXRDeviceRunner.h"
#include "ManagedComputer.h"

/// A simulated computer with a runner.
class EngineComputer : public ManagedComputer {
protected:
    ~EngineComputer() override
    {
        runner->stop();
        settleEngine();
    }

    /// Waits until every change so far has been through the manager and the runner.
    void settleEngine()
    {
        for (int round = 0; round < 2; ++round) { // a restart changes devices, which may ask for another
            settle();
            runner->queue()->dispatchSync([] {});
            settleHardware();
        }
    }
    void plugged(const SimulatedDeviceBuilder& device)
    {
        plug(device);
        settleEngine();
    }
    void unplugged(const std::string& uid)
    {
        unplug(uid);
        settleEngine();
    }

    using Channels = DXRDeviceRunner::Channels;

    const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init();
    const DXRIOBlock idle = [](uint64_t, DXRBuffer&) {};
};
