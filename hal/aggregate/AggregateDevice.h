#pragma once

#include "AggregateDescription.h"
#include "AggregateHost.h"
#include "AggregateIO.h"

#include <memory>
#include <mutex>

/// An aggregate device: what it looks like by what its sub-devices are, and its cycles by theirs.
///
/// Its layout is stable: an absent sub-device keeps the streams it last had, silent. One that comes back while the
/// device runs is joined again without touching the others. When the leader goes, the next that is there leads, until
/// the device is stopped; time goes on.
/// Threads:   any, but IO threads.
/// Waits:     everything, for the sub-devices; not for the clients of the aggregate.
class AggregateDevice final : public CXObject {
public:
    static CXRef<AggregateDevice> initWithDescription(AggregateHost& host, AggregateDescription description);

    /// The ID it has in the model, before any other call but initialState().
    void setObjectID(AudioObjectID deviceID) noexcept { _objectID = deviceID; }
    HALDeviceState initialState();

    /// Looks at the sub-devices again: some have come, gone or changed.
    void refresh();
    /// Stops for good: the device is being taken away.
    void end();

    HALStatus setName(const std::string& name);
    HALStatus setNominalSampleRate(double rate);
    HALStatus setBufferFrameSize(uint32_t frameCount);
    HALStatus setVolume(HALDirection direction, float scalar);
    HALStatus setMuted(HALDirection direction, bool muted);
    HALStatus startIO(const CXRef<HALIOProcTable>& table);
    void stopIO();

    std::vector<AudioAggregateSubDeviceStatus> status() const;

private:
    struct SubDevice {
        AudioObjectID deviceID = kAudioObjectUnknown; // unknown while it is absent
        HALDeviceState state;                         // the last that was known
    };

    AggregateDevice(AggregateHost& host, AggregateDescription description);
    ~AggregateDevice() override = default;

    // Everything below is called under the lock.
    void _lookAtSubDevices();
    const SubDevice* _leader() const;
    HALDeviceState _composedState() const;
    void _composeDirection(HALDeviceState& state, HALDirection direction) const;
    uint32_t _pathLatency(const SubDevice& subDevice, HALDirection direction) const;
    CXPlist _composition() const;
    void _publish();

    bool _isCompensated(size_t place) const;
    AggregateTrackShape _shapeOf(const SubDevice& subDevice) const;
    std::vector<AggregateTrackShape> _layout() const;
    HALStatus _begin();
    HALStatus _beginWith(size_t leader);
    bool _mustBeginAgain() const;
    void _attachWhatCame();
    template <class Value>
    HALStatus _writeToAll(uint32_t selector, uint32_t scope, const Value& value,
                          bool (*takes)(const HALDeviceState&, const Value&));

    AggregateHost& _host;
    const AggregateDescription _description;
    AudioObjectID _objectID = kAudioObjectUnknown;
    std::atomic<uint64_t> _sampleTime{0}; // of the next cycle: AggregateIO

    mutable std::mutex _mutex;
    std::string _name;
    std::vector<SubDevice> _subDevices; // in the order of the description
    CXRef<HALIOProcTable> _table;       // none while stopped
    std::unique_ptr<AggregateIO> _io;   // none while stopped, or no sub-device is there
    bool _isEnded = false;
};
