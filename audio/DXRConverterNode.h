#pragma once

#include "CXExport.h"
#include "CXObject.h"
#include "DXRChannelEntry.h"

#include <cstdint>
#include <vector>

/// What a converter runs: one client of a device in one direction, at the frame count and rate it asked for.
/// Threads:   usageMap before IO; performIO on the IO thread of the device.
class DXR_EXPORT DXRConverterNode : public CXObject {
public:
    /// The device channels it uses, counted from 1. It stays the same while a converter has the node.
    virtual std::vector<uint32_t> usageMap() const = 0;
    /// One cycle. `samples` has an entry for every device channel of the direction, in device order, null
    /// where no node uses the channel; itself null when there is no data at all. Input nodes read what it
    /// points to, output nodes write it. `hostTime`, in ticks, is when the first frame of an input node's
    /// cycle was at the device, and when that of what an output node makes now, for the next cycle, will be;
    /// 0 when that is not known.
    virtual void performIOWithSampleTime(uint64_t sampleTime, const DXRChannelEntry* samples,
                                         uint64_t hostTime) CX_REALTIME = 0;

protected:
    ~DXRConverterNode() override;
};
