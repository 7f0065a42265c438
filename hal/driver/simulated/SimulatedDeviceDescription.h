#pragma once

#include "HALDeviceState.h"
#include "SimulatedSignal.h"

/// Everything about a simulated device: its state in the HAL, its clock, and its input and output signals.
struct SimulatedDeviceDescription {
    HALDeviceState state;
    double driftPartsPerMillion = 0.0;
    double latenessSeconds = 0.0;
    bool loopsBack = false;
    SimulatedSource source;
    SimulatedSink sink;
};
