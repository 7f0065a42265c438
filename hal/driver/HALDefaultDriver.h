#pragma once

#include "HALHardwareDriver.h"

/// The hardware driver of a process that has chosen none; see HALSetHardwareDriver().
CXRef<HALHardwareDriver> halMakeDefaultDriver();

// The drivers of HALMakeHardwareDriver(). The build picks the source files: those of a driver that was not built in return
// null.
CXRef<HALHardwareDriver> halMakePipeWireDriver();
CXRef<HALHardwareDriver> halMakeAlsaDriver(uint32_t periodCount);
