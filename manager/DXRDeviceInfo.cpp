#include "DXRDeviceInfo.h"

#include "DXRReadCheck.h"

bool DXRDeviceInfo::identify(AudioObjectID forDeviceID)
{
    const DXRReadCheck reads;
    const bool isKnown = _current && forDeviceID == _identifiedID;
    DXRDeviceDescription description =
        DXRDeviceDescription::ofDevice(forDeviceID, isKnown ? _description : DXRDeviceDescription{});
    if (isKnown && !_isIncomplete && (description == _description || reads.hasFailed()))
        return false;
    const bool wasIncomplete = std::exchange(_isIncomplete, reads.hasFailed());
    _identifiedID = forDeviceID;
    _description = std::move(description);
    _current = DXRDeviceReference::initWithDescription(_description, std::nullopt);
    for (const bool isInput : {false, true}) {
        const bool hasChannels = _current && _description.channelCount(isInput) > 0;
        _directed[isInput ? 0 : 1] = hasChannels ? _current->deviceReferenceWithInput(isInput) : nullptr;
    }
    return wasIncomplete && !_isIncomplete;
}

bool DXRDeviceInfo::isIncomplete() const noexcept
{
    const bool couldBeGeneric = _description.transportType == 0 || (_current && _current->isGeneric());
    return _isIncomplete && couldBeGeneric; // otherwise it consists of the unique ID
}

void DXRDeviceInfo::adoptIdentityOf(DXRDeviceInfo& other)
{
    _identifiedID = other._identifiedID;
    _isIncomplete = other._isIncomplete;
    _description = std::move(other._description);
    _current = std::move(other._current);
    _directed = std::move(other._directed);
    streams = std::move(other.streams);
}
