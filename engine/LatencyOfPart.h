#pragma once

#include "AudioHardware.h"
#include "DXRDeviceLatency.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

/// One direction of the clock device's last cycle. Frames are the clock device's.
struct CyclePlacement {
    AudioObjectID clockID = kAudioObjectUnknown; ///< the clock device
    double sampleRate = 0.0;                     ///< nominal, Hz
    double cycleFrames = 0.0;
    double distanceFrames = 0.0; ///< between the cycle's time and the first frame of its input or output
    double blockFrames = 0.0;    ///< frames of one block
    double placeFrames = 0.0;    ///< from the first frame of the cycle's input or output to the last block's
};

using SubDeviceStatuses = std::vector<AudioAggregateSubDeviceStatus>;

/// The status of each part of an aggregate; empty for other devices.
SubDeviceStatuses subDeviceStatusesOf(AudioObjectID aggregateID);

/// The latency of a device that is the clock, or a part of the aggregate with these `statuses`.
DXRDeviceLatency latencyOfPart(AudioObjectID deviceID, bool isInput, const CyclePlacement& placement,
                               const SubDeviceStatuses& statuses);

/// The latency of the slowest of `devices`; default values if there are none. `placement` names the context's
/// device as the clock; if that is an aggregate, the aggregate's clock device is used.
DXRDeviceLatency latencyOfSlowest(const std::vector<AudioObjectID>& devices, bool isInput,
                                  CyclePlacement placement, const SubDeviceStatuses& statuses);

/// How many seconds a part's frames are at their device after the clock device's frames of the same cycle.
/// Negative if they are earlier: frames in an input ring were captured earlier.
double secondsAfterClock(const DXRDeviceLatency& part, const CyclePlacement& placement);

/// The latency of the input plus that of the output; empty if `latencies` lacks either.
std::optional<double> roundTripSecondsOf(const std::vector<DXRDeviceLatency>& latencies,
                                         const std::string& inputUID, const std::string& outputUID);
