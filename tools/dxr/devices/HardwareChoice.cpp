#include "HardwareChoice.h"

#include "SimulatedDevices.h"
#include "ToolFailure.h"

#include <dxr/HALHardwareDriver.h>

HardwareChoice::HardwareChoice(CLI::App& command)
{
    auto* const simulated = command.add_flag("--simulated", _isSimulated,
                                             "Use a simulated computer's devices instead of this one's");
    command
        .add_option(
            "--hardware", _driver,
            "Use this driver: pipewire (usual), alsa (the sound cards, without a sound server), or alsa:2 "
            "(with shorter buffers)")
        ->excludes(simulated);
}

CXRef<SimulatedHardware> HardwareChoice::apply() const
{
    if (!_driver.empty()) {
        const CXRef<HALHardwareDriver> driver = HALMakeHardwareDriver(_driver);
        if (!driver)
            throw ToolFailure("no driver '" + _driver +
                              "': use pipewire, alsa or alsa:2, as far as they were built in");
        HALSetHardwareDriver(driver);
    }
    if (!_isSimulated)
        return nullptr;
    CXRef<SimulatedHardware> backend = SimulatedDevices::open();
    HALSetHardwareDriver(backend);
    return backend;
}
