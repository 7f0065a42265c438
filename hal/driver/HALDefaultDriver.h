#pragma once

#include "HALHardwareDriver.h"

/// The hardware driver of a process that did not call HALSetHardwareDriver().
CXRef<HALHardwareDriver> halMakeDefaultDriver();

// The drivers of HALMakeHardwareDriver(). For a driver that is not part of the build, a source file of
// `absent/` is built whose function returns null.
CXRef<HALHardwareDriver> halMakePipeWireDriver();
CXRef<HALHardwareDriver> halMakeAlsaDriver(uint32_t periodCount);
