#include "PipeWireDeviceDriver.h"

using Reply = PipeWireEngine::Reply;

CXRef<PipeWireDeviceDriver> PipeWireDeviceDriver::initWithNumber(AudioObjectID number,
                                                                 CXRef<PipeWireEngine> engine)
{
    return CXRef<PipeWireDeviceDriver>::adopt(new PipeWireDeviceDriver(number, std::move(engine)));
}

HALStatus PipeWireDeviceDriver::setNominalSampleRate(double rate, HALDeadline deadline)
{
    return _engine->carryOut(
        [number = _number, rate](PipeWireHardware& hardware, const Reply& reply) {
            hardware.setNominalSampleRate(number, rate, reply);
        },
        deadline);
}

HALStatus PipeWireDeviceDriver::setBufferFrameSize(uint32_t frameCount, HALDeadline deadline)
{
    return _engine->carryOut(
        [number = _number, frameCount](PipeWireHardware& hardware, const Reply& reply) {
            hardware.setBufferFrameSize(number, frameCount, reply);
        },
        deadline);
}

HALStatus PipeWireDeviceDriver::setVolume(HALDirection direction, uint32_t element, float scalar,
                                          HALDeadline deadline)
{
    return _engine->carryOut(
        [=, number = _number](PipeWireHardware& hardware, const Reply& reply) {
            hardware.setVolume(number, direction, element, scalar, reply);
        },
        deadline);
}

HALStatus PipeWireDeviceDriver::setMuted(HALDirection direction, bool muted, HALDeadline deadline)
{
    return _engine->carryOut(
        [=, number = _number](PipeWireHardware& hardware, const Reply& reply) {
            hardware.setMuted(number, direction, muted, reply);
        },
        deadline);
}

HALStatus PipeWireDeviceDriver::setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline deadline)
{
    return _engine->carryOut(
        [=, number = _number](PipeWireHardware& hardware, const Reply& reply) {
            hardware.setDataSource(number, direction, sourceID, reply);
        },
        deadline);
}

HALStatus PipeWireDeviceDriver::startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline)
{
    const HALStatus status = _engine->carryOut(
        [number = _number, table](PipeWireHardware& hardware, const Reply& reply) {
            hardware.startIO(number, table, reply);
        },
        deadline);
    if (status)
        stopIO(); // a server that only hangs would start it later
    return status;
}

void PipeWireDeviceDriver::stopIO()
{
    _engine->carryOut([number = _number](PipeWireHardware& hardware,
                                         const Reply& reply) { hardware.stopIO(number, reply); },
                      HALDeadline::max()); // for the loop alone, which waits for no server
}
