#include "EngineAggregate.h"

#include "DeviceProperties.h"
#include "TextFormat.h"

#include <dxr/QDL.h>
#include <unistd.h>

namespace {

constexpr const char* prefix = "DXR:"; // then the process ID in hexadecimal, a colon, and a UUID

}

AudioObjectID EngineAggregate::deviceID()
{
    const std::string ours = formatText("%s%X:", prefix, static_cast<unsigned>(getpid()));
    for (const AudioObjectID deviceID :
         readList<AudioObjectID>(kAudioObjectSystemObject, addressOf(kAudioHardwarePropertyDevices))) {
        if (QDLAudioDeviceUIDFromDeviceID(deviceID).value_or("").starts_with(ours))
            return deviceID;
    }
    return kAudioObjectUnknown;
}

bool EngineAggregate::isUID(const std::string& uid)
{
    return uid.starts_with(prefix);
}

std::vector<AudioAggregateSubDeviceStatus> EngineAggregate::status()
{
    const AudioObjectID aggregate = deviceID();
    if (aggregate == kAudioObjectUnknown)
        return {};
    return readList<AudioAggregateSubDeviceStatus>(aggregate,
                                                   addressOf(kAudioAggregateDevicePropertySubDeviceStatus));
}
