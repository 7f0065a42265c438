#pragma once

#include "AggregateDescription.h"
#include "AggregateIO.h"
#include "AggregateStatus.h"
#include "HALHardwareDriver.h"

#include "SerialQueue.h"

#include <memory>
#include <mutex>

/// The driver of an aggregate device. Its state is composed of its sub-devices' states, and it runs in their
/// cycles.
///
/// Its layout is stable: an absent sub-device keeps its last streams, silent. A sub-device that reappears
/// while the aggregate runs is joined without affecting the others. If the leader disappears, the next
/// sub-device that is present and starts leads until the aggregate is stopped; sample time continues.
/// While it should run, a sub-device that did not start is started again after pauses that double: up to 10 s
/// if no other runs, otherwise up to a minute, and without affecting the others.
/// Threads: any except IO threads.
/// Waits:   every function waits for the sub-devices, until the deadline for all of them together; status
///          reads never wait.
class AggregateDevice final : public HALDeviceDriver {
public:
    /// Returns null if no device has that UID. Called with the lock held.
    using DeviceFinder = CXBlock<CXRef<HALDevice>(const std::string& uid)>;

    /// `sink`, and everything that `findDevice` refers to, outlive end(). `queue` tries again what did not
    /// start.
    static CXRef<AggregateDevice> initWithDescription(AggregateDescription description, HALDriverSink& sink,
                                                      DeviceFinder findDevice, CXRef<dxr::SerialQueue> queue);

    /// The current state, for adding the device to the model.
    HALDeviceState look();
    /// Adapts to the sub-devices after some have appeared, disappeared or changed.
    void refresh();
    /// Stops permanently, because the device is being removed.
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
        HALDeviceState state;    // the last known state
        // The state in which `device` failed to start; none: it has not failed. See _hasFailed().
        std::optional<HALDeviceState> failed;
        bool mustRetry = false; // its last start may succeed later
        // A group with `device` did not start, or would have to restart to include it. Until the next
        // startIO(), it runs in no group.
        bool runsAlone = false;
    };
    /// The next attempt to start what did not start.
    struct Retry {
        uint64_t number = 0; // a queued attempt with another number is void
        bool isQueued = false;
        std::chrono::nanoseconds pause{0}; // the last one; 0: none yet
    };

    AggregateDevice(AggregateDescription description, HALDriverSink& sink, DeviceFinder findDevice,
                    CXRef<dxr::SerialQueue> queue);
    ~AggregateDevice() override = default;

    void _retryNow(uint64_t number);

    // Everything below is called with the lock held.
    void _lookAtSubDevices();
    const SubDevice* _leader() const;
    HALDeviceState _composedState() const;
    void _composeDirection(HALDeviceState& state, HALDirection direction) const;
    uint32_t _pathLatency(const SubDevice& leader, const SubDevice& subDevice, HALDirection direction) const;
    CXPlist _composition() const;
    void _publishStatus();
    void _publish();

    bool _isCompensated(size_t place) const;
    AggregateTrackShape _shapeOf(const SubDevice& subDevice) const;
    std::vector<size_t> _groupOf(size_t leader) const;
    AggregateIO::Plan _planFor(size_t leader, std::vector<size_t> group) const;
    AggregateIO::Devices _devices() const;
    HALStatus _begin(HALDeadline deadline);
    std::vector<size_t> _candidates() const;
    HALStatus _beginWith(size_t leader, std::vector<size_t> group, bool isLast, HALDeadline deadline);
    bool _mustBeginAgain() const;
    void _follow(HALDeadline deadline);
    void _joinPresent(HALDeadline deadline, size_t laterStarts);
    void _noteStart(SubDevice& subDevice, HALStatus status, bool hadTime);
    bool _hasFailed(size_t place) const;
    bool _mustStart(size_t place) const;
    bool _mustRetry() const;
    void _retryLater(std::chrono::nanoseconds took);
    void _queueRetry(std::chrono::nanoseconds took);
    void _forgetFailures();
    void _endRetries() { _retry = {.number = _retry.number + 1}; }
    template <class Takes, class Write> HALStatus _writeToAll(Takes takes, Write write, HALDeadline deadline);

    const AggregateDescription _description;
    HALDriverSink& _sink;
    const DeviceFinder _findDevice;
    const CXRef<dxr::SerialQueue> _queue;
    const CXRef<AggregateStatus> _status = AggregateStatus::init();
    const CXBlock<std::vector<AudioAggregateSubDeviceStatus>()> _readStatus = [status = _status] {
        return status->read();
    };
    std::atomic<uint64_t> _sampleTime{0}; // of the next cycle; see AggregateIO

    mutable std::mutex _mutex; // guards what follows
    std::string _name;
    std::vector<SubDevice> _subDevices; // in the order of the description
    CXRef<HALIOProcTable> _table;       // null while stopped
    std::unique_ptr<AggregateIO> _io;   // null while stopped, or while no sub-device runs
    Retry _retry;
    bool _isEnded = false;
};
