#pragma once

// Audio hardware in memory: for tests of hot-plug code, for demonstrations, and where there is no sound
// server.

#include "SimulatedBackend.h"
#include "SimulatedDeviceBuilder.h"
#include "SimulatedSignal.h"
