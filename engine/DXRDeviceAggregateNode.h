#pragma once

#include "CXPlist.h"
#include "DXRDeviceNode.h"

/// The node of a device that is made of others: its UIDs are those of the parts that carry its channels.
class DXR_EXPORT DXRDeviceAggregateNode final : public DXRDeviceNode {
public:
    static CXRef<DXRDeviceAggregateNode> initWithDevice(const CXRef<DXRDevice>& device,
                                                        const std::optional<Channels>& channels,
                                                        const DXRIOBlock& ioblock);

    /// The UIDs of the active parts that have channels in the node's direction, in the order of the composition;
    /// none when it cannot be read.
    std::vector<std::string> deviceUIDs() const override;

    /// How the device is composed: a dictionary whose "subdevices" each have "uid", "channels-in" and "channels-out";
    /// with `activeOnly`, those parts only that run now. Null when it cannot be read.
    CXPlist _composition(bool activeOnly) const;

protected:
    const char* className() const override { return "DXRDeviceAggregateNode"; }

private:
    using DXRDeviceNode::DXRDeviceNode;
    ~DXRDeviceAggregateNode() override = default;
};
