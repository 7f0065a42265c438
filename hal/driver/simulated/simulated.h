#pragma once

// Audio hardware in memory: for tests of hot-plug code, for demonstrations, and for machines without a sound
// server.

#include "SimulatedDeviceBuilder.h"
#include "SimulatedHardware.h"
#include "SimulatedSignal.h"
