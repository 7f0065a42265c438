#pragma once

#include <dxr/AudioHardware.h>
#include <vector>

/// The private device that a runner of this process has made of its devices.
/// Threads: any.
class EngineAggregate {
public:
    /// Its ID; 0 while the runner has none.
    static AudioObjectID deviceID();
    /// Whether a device of that UID is one, of whatever process.
    static bool isUID(const std::string& uid);
    /// How the clocks of its sub-devices do; empty while there is none.
    static std::vector<AudioAggregateSubDeviceStatus> status();
};
