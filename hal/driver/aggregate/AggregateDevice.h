#pragma once

#include "AggregateDescription.h"
#include "AggregateIO.h"
#include "AggregateStatus.h"
#include "HALHardwareDriver.h"

#include <memory>
#include <mutex>

/// The driver of an aggregate device: its state is composed of its sub-devices' states, its cycles are
/// theirs.
///
/// Its layout is stable: an absent sub-device keeps the streams it last had, silent. One that comes back
/// while the device runs is joined again without touching the others. When the leader goes, the next
/// sub-device present leads, until the device is stopped; time goes on.
/// Threads: any, but IO threads.
/// Waits:   every function, for the sub-devices, all of them together until the deadline; status reads never.
class AggregateDevice final : public HALDeviceDriver {
public:
    /// Null where no device has that UID. Called under the lock.
    using DeviceFinder = CXBlock<CXRef<HALDevice>(const std::string& uid)>;

    /// `sink` and what `findDevice` refers to outlive end().
    static CXRef<AggregateDevice> initWithDescription(AggregateDescription description, HALDriverSink& sink,
                                                      DeviceFinder findDevice);

    /// The state now; for adding it to the model.
    HALDeviceState look();
    /// Follows the sub-devices: some have come, gone or changed.
    void refresh();
    /// Stops for good: the device is being removed.
    void end();

    HALStatus setName(const std::string& name, HALDeadline deadline) override;
    HALStatus setNominalSampleRate(double rate, HALDeadline deadline) override;
    HALStatus setBufferFrameSize(uint32_t frameCount, HALDeadline deadline) override;
    HALStatus setVolume(HALDirection direction, uint32_t element, float scalar,
                        HALDeadline deadline) override;
    HALStatus setMuted(HALDirection direction, bool muted, HALDeadline deadline) override;
    HALStatus startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline) override;
    void stopIO() override;

private:
    struct SubDevice {
        CXRef<HALDevice> device; // null while absent
        HALDeviceState state;    // the last known
    };

    AggregateDevice(AggregateDescription description, HALDriverSink& sink, DeviceFinder findDevice);
    ~AggregateDevice() override = default;

    // Everything below is called under the lock.
    void _lookAtSubDevices();
    const SubDevice* _leader() const;
    HALDeviceState _composedState() const;
    void _composeDirection(HALDeviceState& state, HALDirection direction) const;
    uint32_t _pathLatency(const SubDevice& subDevice, HALDirection direction) const;
    CXPlist _composition() const;
    void _publishStatus();
    void _publish();

    bool _isCompensated(size_t place) const;
    AggregateTrackShape _shapeOf(const SubDevice& subDevice) const;
    std::vector<size_t> _groupOf(size_t leader) const;
    AggregateIO::Plan _planFor(size_t leader, std::vector<size_t> group) const;
    AggregateIO::Devices _devices() const;
    HALStatus _begin(HALDeadline deadline);
    HALStatus _beginWith(size_t leader, std::vector<size_t> group, HALDeadline deadline);
    bool _mustBeginAgain() const;
    void _follow(HALDeadline deadline);
    void _joinPresent(HALDeadline deadline);
    template <class Takes, class Write> HALStatus _writeToAll(Takes takes, Write write, HALDeadline deadline);

    const AggregateDescription _description;
    HALDriverSink& _sink;
    const DeviceFinder _findDevice;
    const CXRef<AggregateStatus> _status = AggregateStatus::init();
    const CXBlock<std::vector<AudioAggregateSubDeviceStatus>()> _readStatus = [status = _status] {
        return status->read();
    };
    std::atomic<uint64_t> _sampleTime{0}; // of the next cycle: AggregateIO

    mutable std::mutex _mutex; // what follows
    std::string _name;
    std::vector<SubDevice> _subDevices; // in the order of the description
    CXRef<HALIOProcTable> _table;       // none while stopped
    std::unique_ptr<AggregateIO> _io;   // none while stopped, or no sub-device is present
    std::vector<size_t> _refusedGroup;  // the driver does not run these places together
    bool _isEnded = false;
};
