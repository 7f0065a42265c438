#include "HALDefaultDriver.h"

#include "AlsaDriver.h"

CXRef<HALHardwareDriver> halMakeAlsaDriver(uint32_t periodCount)
{
    return AlsaDriver::init(periodCount);
}
