#pragma once

#include "PipeWireRequests.h"

class PipeWireDevice;

/// The driver of one device of the server: posts every request to the loop.
/// Threads: as HALDeviceDriver.
class PipeWireDeviceDriver final : public HALDeviceDriver {
public:
    static CXRef<PipeWireDeviceDriver> init(CXRef<PipeWireRequests> requests);

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
    using Reply = PipeWireRequests::Reply;
    using Work = CXBlock<void(PipeWireHardware&, PipeWireDevice&, const Reply&)>;

    explicit PipeWireDeviceDriver(CXRef<PipeWireRequests> requests) : _requests(std::move(requests)) {}
    ~PipeWireDeviceDriver() override = default;

    /// Returns '!dev' if the device has disappeared.
    HALStatus _carryOut(const Work& work, HALDeadline deadline);

    const CXRef<PipeWireRequests> _requests;
};
