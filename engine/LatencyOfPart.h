#pragma once

#include "AudioHardware.h"
#include "DXRDeviceLatency.h"

#include <span>
#include <vector>

/// One direction of the clock device's cycles, as the last of them was. Frames are that device's.
struct CyclePlacement {
    AudioObjectID clockID = kAudioObjectUnknown; ///< whose cycles they are
    double sampleRate = 0.0;                     ///< nominal, Hz
    double cycleFrames = 0.0;
    double distanceFrames = 0.0; ///< between the cycle's time and the first frame of its input or output
    double blockFrames = 0.0;    ///< of one block
    double placeFrames =
        0.0; ///< of the last block's first frame, after the first of the cycle's input or output
};

using SubDeviceStatuses = std::vector<AudioAggregateSubDeviceStatus>;

/// How the parts of an aggregate run, as it reports; empty for other devices.
SubDeviceStatuses subDeviceStatusesOf(AudioObjectID aggregateID);

/// The latency of a device that runs as the clock, or as another part of the aggregate with these `statuses`.
DXRDeviceLatency latencyOfPart(AudioObjectID deviceID, bool isInput, const CyclePlacement& placement,
                               const SubDeviceStatuses& statuses);

/// The latency of the slowest of some devices, which is a default one without any. `placement` names the context's device as
/// the clock; where that is an aggregate, its clock device counts.
DXRDeviceLatency latencyOfSlowest(const std::vector<AudioObjectID>& devices, bool isInput,
                                  CyclePlacement placement, const SubDeviceStatuses& statuses);

/// How many seconds later than the clock device's frames of the same cycle those of a part are at their device; negative
/// where they are earlier, as those are that an input ring holds.
double secondsAfterClock(const DXRDeviceLatency& part, const CyclePlacement& placement);
