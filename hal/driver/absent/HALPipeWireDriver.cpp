#include "HALDefaultDriver.h"

// A build without PipeWire.
CXRef<HALHardwareDriver> halMakePipeWireDriver()
{
    return nullptr;
}
