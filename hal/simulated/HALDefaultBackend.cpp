#include "HALDefaultBackend.h"

#include "SimulatedBackend.h"

// A build without a sound server: every call answers, for a computer that has no audio device.
CXRef<HALBackend> halMakeDefaultBackend()
{
    return SimulatedBackend::init();
}
