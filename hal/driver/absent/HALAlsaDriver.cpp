#include "HALDefaultDriver.h"

// A build without ALSA.
CXRef<HALHardwareDriver> halMakeAlsaDriver(uint32_t /*periodCount*/)
{
    return nullptr;
}
