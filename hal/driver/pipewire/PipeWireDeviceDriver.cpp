#include "PipeWireDeviceDriver.h"

using Reply = PipeWireEngine::Reply;

/// Devices of one graph that run in one cycle.
class PipeWireDeviceDriver::Group final : public HALGroupIO {
public:
    explicit Group(CXRef<PipeWireEngine> engine) : _engine(std::move(engine)) {}

    HALStatus start(std::span<const HALGroupMember> members, const CXRef<HALIOProcTable>& table,
                    HALDeadline deadline)
    {
        std::vector<PipeWireGroupMember> all;
        for (const HALGroupMember& each : members)
            all.push_back({numberOf(each.device), each.table, each.inputChannels, each.outputChannels});
        return _engine->carryOut(
            [number = _number, all, table, deadline](PipeWireHardware& hardware, const Reply& reply) {
                hardware.startTogether(number, all, table, deadline, reply);
            },
            deadline);
    }

    HALStatus setMember(size_t place, const CXRef<HALDeviceDriver>& device,
                        const CXRef<HALIOProcTable>& table) override
    {
        return _engine->carryOut(
            [group = _number, place, number = numberOf(device), table](PipeWireHardware& hardware,
                                                                       const Reply& reply) {
                hardware.setGroupMember(group, place, number, table, reply);
            },
            HALDeadline::max()); // for the loop alone, which waits for no server
    }

    void stop() override
    {
        _engine->carryOut([number = _number](PipeWireHardware& hardware,
                                             const Reply& reply) { hardware.stopTogether(number, reply); },
                          HALDeadline::max());
    }

private:
    static AudioObjectID numberOf(const CXRef<HALDeviceDriver>& device)
    {
        return device ? static_cast<PipeWireDeviceDriver&>(*device).number() : kAudioObjectUnknown;
    }
    static uint64_t nextNumber()
    {
        static std::atomic<uint64_t> last{0};
        return ++last;
    }

    const CXRef<PipeWireEngine> _engine;
    const uint64_t _number = nextNumber();
};

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
        [number = _number, table, deadline](PipeWireHardware& hardware, const Reply& reply) {
            hardware.startIO(number, table, deadline, reply);
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

HALStatus PipeWireDeviceDriver::startTogether(std::span<const HALGroupMember> members,
                                              const CXRef<HALIOProcTable>& table, HALDeadline deadline,
                                              CXRef<HALGroupIO>& group)
{
    const auto started = CXRef<Group>::adopt(new Group(_engine));
    const HALStatus status = started->start(members, table, deadline);
    if (status)
        started->stop(); // a server that only hangs would start it later
    else
        group = started;
    return status;
}
