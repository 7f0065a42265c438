#include "HardwareChoice.h"

#include "SimulatedZoo.h"

HardwareChoice::HardwareChoice(CLI::App& command)
{
    command.add_flag("--simulated", _isSimulated, "Use a simulated computer's devices instead of this one's");
}

CXRef<SimulatedHardware> HardwareChoice::apply() const
{
    if (!_isSimulated)
        return nullptr;
    CXRef<SimulatedHardware> backend = SimulatedZoo::open();
    HALSetHardwareDriver(backend);
    return backend;
}
