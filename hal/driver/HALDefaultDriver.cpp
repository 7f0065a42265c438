#include "HALDefaultDriver.h"

#include "LogSink.h"
#include "SimulatedHardware.h"
#include "SoundServerSearch.h"

CXRef<HALHardwareDriver> HALMakeHardwareDriver(std::string_view name)
{
    if (name == "pipewire")
        return halMakePipeWireDriver();
    if (name == "alsa")
        return halMakeAlsaDriver(3);
    if (name == "alsa:2")
        return halMakeAlsaDriver(2);
    return nullptr;
}

CXRef<HALHardwareDriver> halMakeDefaultDriver()
{
    const SoundServerSearch search;
    if (search.hasCards() && !search.isServerExpected()) {
        if (const auto alsa = HALMakeHardwareDriver("alsa")) {
            dxr::LogSink::log("no sound server: using the sound cards directly (ALSA)");
            return alsa;
        }
    }
    if (const auto pipeWire = halMakePipeWireDriver())
        return pipeWire;
    if (const auto alsa = HALMakeHardwareDriver("alsa"); alsa && !search.isServerExpected())
        return alsa;
    return SimulatedHardware::init(); // a computer without audio devices
}
