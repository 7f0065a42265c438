#pragma once

#include "HALHardwareDriver.h"

/// The hardware driver of a process that has chosen none: PipeWire's where it was built in, else one without
/// devices. The build picks the source file.
CXRef<HALHardwareDriver> halMakeDefaultDriver();
