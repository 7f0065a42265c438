#pragma once

#include "HALReads.h"
#include "MainQueue.h"
#include "simulated.h"

#include <gtest/gtest.h>

/// The process's only simulated computer. Each test starts and ends with no devices and no injected faults.
class SimulatedComputer : public testing::Test {
protected:
    static constexpr bool input = true, output = false;

    ~SimulatedComputer() override
    {
        hal.failReads(kAudioObjectPropertySelectorWildcard, 1, 0, 0);
        hal.failWrites(0);
        for (const AudioObjectID device : readDevices(hal))
            hal.unplug(readText(hal, device, at(kAudioDevicePropertyDeviceUID)).value_or(""));
    }

    /// Waits until listeners have been notified of every change so far, and runs the work of the main queue.
    void settleHardware()
    {
        hal.settle();
        while (dxr::MainQueue::shared().drain() > 0) {
        }
    }

    SimulatedHardware& hal = _hardware();

private:
    static SimulatedHardware& _hardware()
    {
        static const auto only = installed(SimulatedHardware::init(SimulatedClock::Stepped));
        return *only;
    }
};
