#pragma once

#include "PipeWireEngine.h"

/// The driver of one device of the server: hands every request to the loop.
/// Threads: as HALDeviceDriver.
class PipeWireDeviceDriver final : public HALDeviceDriver {
public:
    /// For the device that the loop knows by `number`.
    static CXRef<PipeWireDeviceDriver> initWithNumber(AudioObjectID number, CXRef<PipeWireEngine> engine);

    AudioObjectID number() const noexcept { return _number; }

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

    PipeWireDeviceDriver(AudioObjectID number, CXRef<PipeWireEngine> engine)
        : _number(number), _engine(std::move(engine))
    {}
    ~PipeWireDeviceDriver() override = default;

    const AudioObjectID _number;
    const CXRef<PipeWireEngine> _engine;
};
