#include "HALDefaultDriver.h"

// For builds without ALSA.
CXRef<HALHardwareDriver> halMakeAlsaDriver(uint32_t /*periodCount*/)
{
    return nullptr;
}
