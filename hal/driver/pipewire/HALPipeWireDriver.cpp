#include "HALDefaultDriver.h"

#include "PipeWireDriver.h"

CXRef<HALHardwareDriver> halMakePipeWireDriver()
{
    return PipeWireDriver::initWithRemote();
}
