#include "HALDefaultDriver.h"

// For builds without PipeWire.
CXRef<HALHardwareDriver> halMakePipeWireDriver()
{
    return nullptr;
}
