#include "LatencyOfPart.h"

#include "DXRPropertyAddress.h"

#include <algorithm>
#include <cstring>

namespace {

uint32_t scopeOf(bool isInput)
{
    return isInput ? kAudioObjectPropertyScopeInput : kAudioObjectPropertyScopeOutput;
}

double safetyOffsetOf(AudioObjectID deviceID, bool isInput)
{
    return DXRPropertyAddress::deviceSafetyOffset(scopeOf(isInput))->uint32ForObjectID(deviceID).value_or(0);
}

/// The latency of the device plus that of its slowest stream.
double reportedLatencyOf(AudioObjectID deviceID, bool isInput)
{
    const uint32_t scope = scopeOf(isInput);
    uint32_t ofStreams = 0;
    for (const AudioObjectID stream :
         DXRPropertyAddress::deviceStreams(scope)->uint32ArrayForObjectID(deviceID))
        ofStreams = std::max(ofStreams,
                             DXRPropertyAddress::streamLatency(scope)->uint32ForObjectID(stream).value_or(0));
    return DXRPropertyAddress::deviceLatency(scope)->uint32ForObjectID(deviceID).value_or(0) +
           static_cast<double>(ofStreams);
}

/// The delay of the ring between a part and the clock's cycles, in the writer's frames; 0 without a ring.
double ringDelayOf(AudioObjectID deviceID, bool isInput, const SubDeviceStatuses& statuses)
{
    const auto found = std::ranges::find(statuses, deviceID, &AudioAggregateSubDeviceStatus::deviceID);
    if (found == statuses.end() || found->isClock != 0)
        return 0.0;
    return isInput ? found->inputDelayFrames : found->outputDelayFrames;
}

} // namespace

SubDeviceStatuses subDeviceStatusesOf(AudioObjectID aggregateID)
{
    const auto data = DXRPropertyAddress::initWithSelector(kAudioAggregateDevicePropertySubDeviceStatus)
                          ->dataForObjectID(aggregateID);
    SubDeviceStatuses statuses(data ? data->size() / sizeof(AudioAggregateSubDeviceStatus) : 0);
    if (!statuses.empty())
        std::memcpy(statuses.data(), data->data(), statuses.size() * sizeof statuses[0]);
    return statuses;
}

DXRDeviceLatency latencyOfPart(AudioObjectID deviceID, bool isInput, const CyclePlacement& placement,
                               const SubDeviceStatuses& statuses)
{
    DXRDeviceLatency latency;
    latency.isInput = isInput;
    latency.sampleRate =
        DXRPropertyAddress::deviceSampleRate()->doubleForObjectID(deviceID).value_or(placement.sampleRate);
    const double perClockFrame = latency.sampleRate / placement.sampleRate;
    latency.deviceFrames = reportedLatencyOf(deviceID, isInput);
    latency.safetyOffsetFrames = safetyOffsetOf(deviceID, isInput);
    if (const double delay = ringDelayOf(deviceID, isInput, statuses); delay > 0.0) {
        // The delay is measured from the start of the writer's cycle to the start of the reader's, plus one
        // cycle of the writer: for input, the capture of the cycle written.
        latency.cycleFrames =
            DXRPropertyAddress::deviceBufferFrameSize()->uint32ForObjectID(deviceID).value_or(0);
        latency.ringFrames =
            isInput ? delay - latency.cycleFrames : (delay - placement.cycleFrames) * perClockFrame;
    } else {
        // From the clock's time stamps, minus the clock's safety offset, which may differ from this device's.
        latency.cycleFrames =
            (placement.distanceFrames - safetyOffsetOf(placement.clockID, isInput)) * perClockFrame;
    }
    if (isInput) {
        latency.converterFrames = -placement.placeFrames * perClockFrame;
    } else {
        latency.blockFrames = placement.blockFrames * perClockFrame;
        latency.converterFrames = placement.placeFrames * perClockFrame - latency.blockFrames;
    }
    return latency;
}

DXRDeviceLatency latencyOfSlowest(const std::vector<AudioObjectID>& devices, bool isInput,
                                  CyclePlacement placement, const SubDeviceStatuses& statuses)
{
    const auto clock = std::ranges::find_if(statuses, [](const auto& status) { return status.isClock != 0; });
    if (clock != statuses.end())
        placement.clockID = clock->deviceID;
    DXRDeviceLatency slowest;
    slowest.isInput = isInput;
    for (const AudioObjectID device : devices) {
        DXRDeviceLatency latency = latencyOfPart(device, isInput, placement, statuses);
        if (latency.seconds() >= slowest.seconds())
            slowest = std::move(latency);
    }
    return slowest;
}

double secondsAfterClock(const DXRDeviceLatency& part, const CyclePlacement& placement)
{
    const double distance = (part.safetyOffsetFrames + part.cycleFrames + part.ringFrames) / part.sampleRate -
                            placement.distanceFrames / placement.sampleRate;
    return part.isInput ? -distance : distance;
}

std::optional<double> roundTripSecondsOf(const std::vector<DXRDeviceLatency>& latencies,
                                         const std::string& inputUID, const std::string& outputUID)
{
    const auto latencyOf = [&](const std::string& uid, bool isInput) {
        return std::ranges::find_if(latencies, [&](const DXRDeviceLatency& each) {
            return each.isInput == isInput && each.deviceUID == uid;
        });
    };
    const auto in = latencyOf(inputUID, true), out = latencyOf(outputUID, false);
    if (in == latencies.end() || out == latencies.end())
        return std::nullopt;
    return in->seconds() + out->seconds();
}
