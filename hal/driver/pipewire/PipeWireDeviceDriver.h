#pragma once

#include "PipeWireDriver.h"

class PipeWireDevice;

/// The driver of one device of the server: hands every request to the loop.
/// Threads: as HALDeviceDriver; device() and forgetDevice() on the loop's.
class PipeWireDeviceDriver final : public HALDeviceDriver {
public:
    static CXRef<PipeWireDeviceDriver> initWithDevice(PipeWireDevice& device, CXRef<PipeWireDriver> owner);

    /// Null when the device has gone.
    PipeWireDevice* device() const noexcept { return _device; }
    void forgetDevice() noexcept { _device = nullptr; }

    HALStatus chooseAsDefault(HALDefault which, HALDeadline deadline);
    HALStatus setNominalSampleRate(double rate, HALDeadline deadline) override;
    HALStatus setBufferFrameSize(uint32_t frameCount, HALDeadline deadline) override;
    HALStatus setVolume(HALDirection direction, uint32_t element, float scalar,
                        HALDeadline deadline) override;
    HALStatus setMuted(HALDirection direction, bool muted, HALDeadline deadline) override;
    HALStatus setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline deadline) override;
    HALStatus startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline) override;
    void stopIO() override;
    HALStatus startTogether(std::span<const HALGroupMember> members, const CXRef<HALIOProcTable>& table,
                            HALDeadline deadline, CXRef<HALGroupIO>& group) override;

private:
    class Group;
    using Reply = PipeWireDriver::Reply;
    using Work = CXBlock<void(PipeWireHardware&, PipeWireDevice&, const Reply&)>;

    PipeWireDeviceDriver(PipeWireDevice& device, CXRef<PipeWireDriver> owner)
        : _owner(std::move(owner)), _device(&device)
    {}
    ~PipeWireDeviceDriver() override = default;

    /// '!dev' when the device has gone.
    HALStatus _carryOut(const Work& work, HALDeadline deadline);

    const CXRef<PipeWireDriver> _owner;
    PipeWireDevice* _device; // the loop's
};
