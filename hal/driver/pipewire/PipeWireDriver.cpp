#include "PipeWireDriver.h"

#include "PipeWireDeviceDriver.h"
#include "PipeWireEngine.h"

CXRef<PipeWireDriver> PipeWireDriver::initWithRemote(const std::optional<std::string>& remote)
{
    return CXRef<PipeWireDriver>::adopt(new PipeWireDriver(remote));
}

PipeWireDriver::PipeWireDriver(const std::optional<std::string>& remote)
    : _engine(PipeWireEngine::initWithRemote(remote))
{}

PipeWireDriver::~PipeWireDriver() = default;

void PipeWireDriver::start(HALDriverSink& sink)
{
    _engine->start(sink);
}

void PipeWireDriver::stop()
{
    _engine->stop();
}

void PipeWireDriver::waitUntilEnumerated()
{
    _engine->waitUntilEnumerated();
}

std::string PipeWireDriver::unavailableReason() const
{
    return _engine->unavailableReason();
}

HALStatus PipeWireDriver::chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline deadline)
{
    const auto* chosen = dynamic_cast<PipeWireDeviceDriver*>(&device);
    if (!chosen) // the server knows nothing of aggregate devices
        return kAudioHardwareIllegalOperationError;
    return _engine->carryOut(
        [which, number = chosen->number()](PipeWireHardware& hardware, const PipeWireEngine::Reply& reply) {
            hardware.chooseDefaultDevice(which, number, reply);
        },
        deadline);
}
