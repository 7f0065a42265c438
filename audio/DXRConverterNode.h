#pragma once

#include "CXExport.h"
#include "CXObject.h"
#include "DXRChannelEntry.h"

#include <cstdint>
#include <vector>

/// One client of a device in one direction, which a converter runs at the frame count and rate that the
/// client asked for.
/// Threads:   usageMap() before IO starts; performIOWithSampleTime() on the device's IO thread.
class DXR_EXPORT DXRConverterNode : public CXObject {
public:
    /// The device channels that the node uses, counted from 1. Must not change while a converter has the
    /// node.
    virtual std::vector<uint32_t> usageMap() const = 0;
    /// Performs one cycle. `samples` has an entry for every device channel of the direction, in device order;
    /// an entry is null if no node uses the channel, and `samples` is null if there is no data. Input nodes
    /// read the samples, output nodes write them. `hostTime` is in ticks: for an input node, when the first
    /// frame of the cycle was at the device; for an output node, when the first frame that it writes now, for
    /// the next cycle, will be at the device. 0 if unknown.
    virtual void performIOWithSampleTime(uint64_t sampleTime, const DXRChannelEntry* samples,
                                         uint64_t hostTime) CX_REALTIME = 0;

protected:
    ~DXRConverterNode() override;
};
