#include "HALDefaultDriver.h"

#include "PipeWireDriver.h"

CXRef<HALHardwareDriver> halMakeDefaultDriver()
{
    return PipeWireDriver::initWithRemote();
}
