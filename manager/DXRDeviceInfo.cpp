#include "DXRDeviceInfo.h"

#include "HALReadFailures.h"
#include "JRCoreGenericUID.h"
#include "QDL.h"

DXRDeviceIdentity DXRDeviceIdentity::read(AudioObjectID deviceID)
{
    DXRDeviceIdentity identity;
    identity.uid = QDLAudioDeviceUIDFromDeviceID(deviceID);
    if (!identity.uid)
        return identity;
    for (const bool isInput : {false, true})
        identity.channelCounts[isInput ? 1 : 0] = QDLAudioDeviceChannelCount(deviceID, isInput);
    identity.transportType = QDLAudioDeviceTransportTypeFromDeviceID(deviceID);
    if (JRCoreTransportCouldBeGeneric(identity.transportType)) {
        identity.manufacturer = QDLAudioDeviceManufacturerFromDeviceID(deviceID);
        identity.model = QDLAudioDeviceModelUIDFromDeviceID(deviceID);
        identity.name = QDLAudioDeviceNameFromDeviceID(deviceID);
    }
    return identity;
}

bool DXRDeviceInfo::identify(AudioObjectID forDeviceID)
{
    const uint64_t failuresBefore = halReadFailures();
    DXRDeviceIdentity identity = DXRDeviceIdentity::read(forDeviceID);
    if (_current && !_isUncertain && forDeviceID == _identifiedID && identity == _identity)
        return false;
    const bool wasUncertain = std::exchange(_isUncertain, false);
    _identifiedID = forDeviceID;
    _identity = std::move(identity);
    _current = DXRDeviceReference::initWithDeviceID(forDeviceID, std::nullopt);
    for (const bool isInput : {false, true}) {
        const bool isThere = _current && _identity.channelCounts[isInput ? 1 : 0] > 0;
        _directed[isInput ? 1 : 0] = isThere ? _current->deviceReferenceWithInput(isInput) : nullptr;
    }
    _isUncertain = halReadFailures() != failuresBefore;
    return wasUncertain && !_isUncertain;
}

void DXRDeviceInfo::adoptIdentityOf(DXRDeviceInfo& other)
{
    _identifiedID = other._identifiedID;
    _isUncertain = other._isUncertain;
    _identity = std::move(other._identity);
    _current = std::move(other._current);
    _directed = std::move(other._directed);
    streams = std::move(other.streams);
}
