#include "CountedContext.h"

#include "LatencyOfPart.h"
#include "QDL.h"

void CountedContext::set(const DXRAudioContext* context)
{
    const Context counted =
        context ? Context{context->kind(), context->deviceID(), context->deviceUID()} : Context();
    const std::scoped_lock lock(_mutex);
    _context = counted;
}

std::vector<DXRRunnerCounts::Device> CountedContext::counts(uint64_t lostFrames) const
{
    Context context;
    {
        const std::scoped_lock lock(_mutex);
        context = _context;
    }
    std::vector<DXRRunnerCounts::Device> devices;
    if (context.kind == DXRCycleRecord::Context::Device)
        devices.push_back({context.deviceUID, lostFrames, 0});
    if (context.kind != DXRCycleRecord::Context::Aggregate)
        return devices;
    for (const AudioAggregateSubDeviceStatus& status : subDeviceStatusesOf(context.deviceID)) {
        const std::optional<std::string> uid = QDLAudioDeviceUIDFromDeviceID(status.deviceID);
        if (uid) // frames lost in the aggregate's own cycles are the clock's
            devices.push_back({*uid, status.lostFrames + (status.isClock != 0 ? lostFrames : 0),
                               status.resynchronisations});
    }
    return devices;
}
