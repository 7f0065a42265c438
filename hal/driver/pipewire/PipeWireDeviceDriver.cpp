#include "PipeWireDeviceDriver.h"

#include "PipeWireHardware.h"

/// Devices of one graph that run in one cycle.
class PipeWireDeviceDriver::Group final : public HALGroupIO {
public:
    explicit Group(CXRef<PipeWireRequests> requests) : _requests(std::move(requests)) {}

    HALStatus start(std::span<const HALGroupMember> members, const CXRef<HALIOProcTable>& table,
                    HALDeadline deadline)
    {
        const std::vector<HALGroupMember> all(members.begin(), members.end());
        return _requests->carryOut(
            [number = _number, all, table, deadline](PipeWireHardware& hardware, const Reply& reply) {
                hardware.startTogether(number, all, table, deadline, reply);
            },
            deadline);
    }

    HALStatus setMember(size_t place, const CXRef<HALDeviceDriver>& device,
                        const CXRef<HALIOProcTable>& table) override
    {
        return _requests->carryOut(
            [number = _number, place, device, table](PipeWireHardware& hardware, const Reply& reply) {
                hardware.setGroupMember(number, place, device, table, reply);
            },
            HALDeadline::max()); // waits only for the loop, which never waits for the server
    }

    void stop() override
    {
        _requests->carryOut([number = _number](PipeWireHardware& hardware,
                                               const Reply& reply) { hardware.stopTogether(number, reply); },
                            HALDeadline::max());
    }

private:
    static uint64_t nextNumber()
    {
        static std::atomic<uint64_t> last{0};
        return ++last;
    }

    const CXRef<PipeWireRequests> _requests;
    const uint64_t _number = nextNumber();
};

CXRef<PipeWireDeviceDriver> PipeWireDeviceDriver::init(CXRef<PipeWireRequests> requests)
{
    return CXRef<PipeWireDeviceDriver>::adopt(new PipeWireDeviceDriver(std::move(requests)));
}

HALStatus PipeWireDeviceDriver::_carryOut(const Work& work, HALDeadline deadline)
{
    return _requests->carryOut(
        [self = CXRef(this), work](PipeWireHardware& hardware, const Reply& reply) {
            if (PipeWireDevice* const device = hardware.deviceOf(self.get()))
                work(hardware, *device, reply);
            else
                reply->finish(kAudioHardwareBadDeviceError);
        },
        deadline);
}

HALStatus PipeWireDeviceDriver::chooseAsDefault(HALDefault which, HALDeadline deadline)
{
    return _carryOut([=](PipeWireHardware& hardware, PipeWireDevice& device,
                         const Reply& reply) { hardware.chooseDefaultDevice(which, device, reply); },
                     deadline);
}

HALStatus PipeWireDeviceDriver::setNominalSampleRate(double rate, HALDeadline deadline)
{
    return _carryOut([=](PipeWireHardware& hardware, PipeWireDevice& device,
                         const Reply& reply) { hardware.setNominalSampleRate(device, rate, reply); },
                     deadline);
}

HALStatus PipeWireDeviceDriver::setBufferFrameSize(uint32_t frameCount, HALDeadline deadline)
{
    return _carryOut([=](PipeWireHardware& hardware, PipeWireDevice& device,
                         const Reply& reply) { hardware.setBufferFrameSize(device, frameCount, reply); },
                     deadline);
}

HALStatus PipeWireDeviceDriver::setVolume(HALDirection direction, uint32_t element, float scalar,
                                          HALDeadline deadline)
{
    return _carryOut(
        [=](PipeWireHardware& hardware, PipeWireDevice& device, const Reply& reply) {
            hardware.setVolume(device, direction, element, scalar, reply);
        },
        deadline);
}

HALStatus PipeWireDeviceDriver::setMuted(HALDirection direction, bool muted, HALDeadline deadline)
{
    return _carryOut([=](PipeWireHardware& hardware, PipeWireDevice& device,
                         const Reply& reply) { hardware.setMuted(device, direction, muted, reply); },
                     deadline);
}

HALStatus PipeWireDeviceDriver::setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline deadline)
{
    return _carryOut([=](PipeWireHardware& hardware, PipeWireDevice& device,
                         const Reply& reply) { hardware.setDataSource(device, direction, sourceID, reply); },
                     deadline);
}

HALStatus PipeWireDeviceDriver::startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline)
{
    const HALStatus status =
        _carryOut([=](PipeWireHardware& hardware, PipeWireDevice& device,
                      const Reply& reply) { hardware.startIO(device, table, deadline, reply); },
                  deadline);
    if (status)
        stopIO(); // else a server that hangs could start it later
    return status;
}

void PipeWireDeviceDriver::stopIO()
{
    _carryOut([](PipeWireHardware& hardware, PipeWireDevice& device,
                 const Reply& reply) { hardware.stopIO(device, reply); },
              HALDeadline::max()); // waits only for the loop, which never waits for the server
}

HALStatus PipeWireDeviceDriver::startTogether(std::span<const HALGroupMember> members,
                                              const CXRef<HALIOProcTable>& table, HALDeadline deadline,
                                              CXRef<HALGroupIO>& group)
{
    const auto started = CXRef<Group>::adopt(new Group(_requests));
    const HALStatus status = started->start(members, table, deadline);
    if (status)
        started->stop(); // else a server that hangs could start it later
    else
        group = started;
    return status;
}
