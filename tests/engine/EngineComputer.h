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
        EngineComputer::settle();
    }

    void settle() override
    {
        for (int round = 0; round < 2; ++round) { // a restart changes devices and may cause another
            ManagedComputer::settle();
            runner->queue()->dispatchSync([] {});
            settleHardware();
        }
    }

    using Channels = DXRDeviceRunner::Channels;

    const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init();
    const DXRIOBlock idle = [](uint64_t, DXRBuffer&) {};
};
