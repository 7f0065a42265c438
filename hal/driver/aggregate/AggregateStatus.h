#pragma once

#include "AggregateTrack.h"

#include <mutex>

/// The status of an aggregate's sub-devices for clients: a snapshot of which sub-devices run, and the tracks
/// whose counters are read.
/// Threads: any.
/// Waits:   no; the lock is held for copies and swaps only.
class AggregateStatus final : public CXObject {
public:
    struct SubDevice {
        AudioObjectID deviceID = kAudioObjectUnknown; ///< unknown while absent
        bool isClock = false;
        bool isRunning = false;
        CXRef<AggregateTrack> track; ///< null for those that run in the clock device's cycle
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
