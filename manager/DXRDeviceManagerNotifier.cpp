#include "DXRDeviceManagerNotifier.h"

CXRef<DXRDeviceManagerNotifier> DXRDeviceManagerNotifier::initWithQueue(CXRef<platform::WorkQueue> queue,
                                                                        Block block)
{
    return CXRef<DXRDeviceManagerNotifier>::adopt(
        new DXRDeviceManagerNotifier(std::move(queue), std::move(block)));
}

DXRDeviceManagerNotifier::DXRDeviceManagerNotifier(CXRef<platform::WorkQueue> queue, Block block)
    : _queue(std::move(queue)), _block(std::move(block))
{}

void DXRDeviceManagerNotifier::notify(const Devices& connected, const Devices& disconnected,
                                      const Devices& updated) const
{
    if (!_block)
        return;
    if (_queue)
        _queue->async(
            [block = _block, connected, disconnected, updated] { block(connected, disconnected, updated); });
    else
        _block(connected, disconnected, updated);
}
