#pragma once

#include "HALDeviceState.h"
#include "SimulatedSignal.h"

/// All that a simulated device is: what the HAL says of it, and what it hears and plays into.
struct SimulatedDeviceDescription {
    HALDeviceState state;
    double driftPartsPerMillion = 0.0;
    double latenessSeconds = 0.0;
    bool loopsBack = false;
    SimulatedSource source;
    SimulatedSink sink;
};
