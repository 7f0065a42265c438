#include "DXRDeviceDescription.h"

#include "DXRReadCheck.h"
#include "JRCoreGenericUID.h"
#include "QDL.h"

namespace {

/// Sets `value` to the result of `read(arguments...)`; a failed read leaves it as it was.
template <class Value, class... Arguments>
void update(Value& value, Value (*read)(Arguments...), Arguments... arguments)
{
    const DXRReadCheck reads;
    Value now = read(arguments...);
    if (now != Value{} || !reads.hasFailed())
        value = std::move(now);
}

} // namespace

DXRDeviceDescription DXRDeviceDescription::ofDevice(AudioObjectID deviceID)
{
    return ofDevice(deviceID, {});
}

DXRDeviceDescription DXRDeviceDescription::ofDevice(AudioObjectID deviceID, const DXRDeviceDescription& known)
{
    DXRDeviceDescription description = known;
    update(description.uid, QDLAudioDeviceUIDFromDeviceID, deviceID);
    if (description.uid != known.uid) { // another device
        DXRDeviceDescription other;
        other.uid = std::move(description.uid);
        description = std::move(other);
    }
    if (!description.uid)
        return description;
    for (const bool isInput : {false, true})
        update(description.channelCounts[isInput ? 0 : 1], QDLAudioDeviceChannelCount, deviceID, isInput);
    update(description.transportType, QDLAudioDeviceTransportTypeFromDeviceID, deviceID);
    if (JRCoreTransportCouldBeGeneric(description.transportType)) {
        update(description.manufacturer, QDLAudioDeviceManufacturerFromDeviceID, deviceID);
        update(description.model, QDLAudioDeviceModelUIDFromDeviceID, deviceID);
        update(description.name, QDLAudioDeviceNameFromDeviceID, deviceID);
    } else {
        description.manufacturer = description.model = description.name = std::nullopt;
    }
    return description;
}
