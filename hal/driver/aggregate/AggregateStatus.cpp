#include "AggregateStatus.h"

void AggregateStatus::set(std::vector<SubDevice> subDevices)
{
    const std::scoped_lock lock(_mutex);
    _subDevices.swap(subDevices); // the old tracks are released without the lock
}

std::vector<AudioAggregateSubDeviceStatus> AggregateStatus::read() const
{
    std::vector<SubDevice> subDevices;
    {
        const std::scoped_lock lock(_mutex);
        subDevices = _subDevices;
    }
    std::vector<AudioAggregateSubDeviceStatus> all(subDevices.size());
    for (size_t place = 0; place < all.size(); ++place) {
        const SubDevice& each = subDevices[place];
        all[place].deviceID = each.deviceID;
        all[place].isClock = each.isClock ? 1 : 0;
        all[place].isRunning = each.isRunning ? 1 : 0;
        if (each.track)
            each.track->addStatus(all[place]);
    }
    return all;
}
