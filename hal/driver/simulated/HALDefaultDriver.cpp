#include "HALDefaultDriver.h"

#include "SimulatedHardware.h"

// A build without a sound server: a computer that has no audio device.
CXRef<HALHardwareDriver> halMakeDefaultDriver()
{
    return SimulatedHardware::init();
}
