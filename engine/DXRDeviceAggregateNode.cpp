#include "DXRDeviceAggregateNode.h"

#include "AggregateComposition.h"
#include "CXPlistAdditions.h"
#include "DXRPropertyAddress.h"
#include "QDL.h"

#include <set>

// Defined here, because this file includes both classes.
CXRef<DXRDeviceNode> DXRDeviceNode::nodeWithDevice(const CXRef<DXRDevice>& device,
                                                   const std::optional<Channels>& channels,
                                                   const DXRIOBlock& ioblock)
{
    if (!device)
        return nullptr;
    if (device->isAggregate())
        return DXRDeviceAggregateNode::initWithDevice(device, channels, ioblock);
    return initWithDevice(device, channels, ioblock);
}

CXRef<DXRDeviceAggregateNode> DXRDeviceAggregateNode::initWithDevice(const CXRef<DXRDevice>& device,
                                                                     const std::optional<Channels>& channels,
                                                                     const DXRIOBlock& ioblock)
{
    return device
               ? CXRef<DXRDeviceAggregateNode>::adopt(new DXRDeviceAggregateNode(device, channels, ioblock))
               : nullptr;
}

std::vector<std::string> DXRDeviceAggregateNode::deviceUIDs() const
{
    std::vector<std::string> uids;
    const CXPlist subdevices = vtObjectForKey(_composition(true), aggregateSubdevicesKey, CXPlistKind::Array);
    for (const CXPlist& subdevice : subdevices) {
        const CXPlist uid = vtObjectForKey(subdevice, aggregateUIDKey, CXPlistKind::String);
        if (uid.is_string() && safeIntegerForKey(subdevice, aggregateChannelsKey(isInput())) != 0)
            uids.push_back(uid.get<std::string>());
    }
    return uids;
}

CXPlist DXRDeviceAggregateNode::_composition(bool activeOnly) const
{
    const AudioObjectID deviceID = device()->deviceID();
    CXPlist composition = aggregateComposition(deviceID);
    if (composition.is_null() || !activeOnly)
        return composition;
    std::set<std::string> active;
    const auto deviceIDs =
        DXRPropertyAddress::aggregateActiveSubDeviceList()->uint32ArrayForObjectID(deviceID);
    if (deviceIDs.empty())
        return nullptr;
    for (const AudioObjectID subdevice : deviceIDs) {
        const std::optional<std::string> uid = QDLAudioDeviceUIDFromDeviceID(subdevice);
        if (!uid)
            return nullptr;
        active.insert(*uid);
    }
    composition[aggregateSubdevicesKey] =
        vt_select(vtObjectForKey(composition, aggregateSubdevicesKey, CXPlistKind::Array),
                  [&](const CXPlist& subdevice) {
                      const CXPlist uid = vtObjectForKey(subdevice, aggregateUIDKey, CXPlistKind::String);
                      return uid.is_string() && active.contains(uid.get<std::string>());
                  });
    return composition;
}
