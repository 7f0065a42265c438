#pragma once

#include "CXPlist.h"
#include "DXRDeviceNode.h"

/// The node of an aggregate device: deviceUIDs() returns the UIDs of the parts that carry its channels.
class DXR_EXPORT DXRDeviceAggregateNode final : public DXRDeviceNode {
public:
    static CXRef<DXRDeviceAggregateNode> initWithDevice(const CXRef<DXRDevice>& device,
                                                        const std::optional<Channels>& channels,
                                                        const DXRIOBlock& ioblock);

    /// The UIDs of the active parts that have channels in the node's direction, in the order of the
    /// composition; empty if it cannot be read.
    std::vector<std::string> deviceUIDs() const override;

    /// The composition of the device: a dictionary whose "subdevices" each have "uid", "channels-in" and
    /// "channels-out"; with `activeOnly`, only the parts that run now. Null if it cannot be read.
    CXPlist _composition(bool activeOnly) const;

protected:
    const char* className() const override { return "DXRDeviceAggregateNode"; }

private:
    using DXRDeviceNode::DXRDeviceNode;
    ~DXRDeviceAggregateNode() override = default;
};
