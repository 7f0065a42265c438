#pragma once

#include "AggregateTrack.h"

#include <mutex>

/// The sub-devices of an aggregate as clients read them: a snapshot of who runs, and the counters of the
/// bridges.
/// Threads: any.
/// Waits:   no; nothing else happens under its lock.
class AggregateStatus final : public CXObject {
public:
    struct SubDevice {
        AudioObjectID deviceID = kAudioObjectUnknown; ///< unknown while absent
        bool isClock = false;
        bool isRunning = false;
        CXRef<AggregateTrack> track; ///< none for those that run in the clock's own cycle
    };

    static CXRef<AggregateStatus> init() { return CXRef<AggregateStatus>::adopt(new AggregateStatus); }

    void set(std::vector<SubDevice> subDevices);
    std::vector<AudioAggregateSubDeviceStatus> read() const;

private:
    AggregateStatus() = default;
    ~AggregateStatus() override = default;

    mutable std::mutex _mutex;
    std::vector<SubDevice> _subDevices;
};
