#include "DXRDeviceDescription.h"

#include "JRCoreGenericUID.h"
#include "QDL.h"

DXRDeviceDescription DXRDeviceDescription::ofDevice(AudioObjectID deviceID)
{
    DXRDeviceDescription description;
    description.uid = QDLAudioDeviceUIDFromDeviceID(deviceID);
    if (!description.uid)
        return description;
    for (const bool isInput : {false, true})
        description.channelCounts[isInput ? 0 : 1] = QDLAudioDeviceChannelCount(deviceID, isInput);
    description.transportType = QDLAudioDeviceTransportTypeFromDeviceID(deviceID);
    if (JRCoreTransportCouldBeGeneric(description.transportType)) {
        description.manufacturer = QDLAudioDeviceManufacturerFromDeviceID(deviceID);
        description.model = QDLAudioDeviceModelUIDFromDeviceID(deviceID);
        description.name = QDLAudioDeviceNameFromDeviceID(deviceID);
    }
    return description;
}
