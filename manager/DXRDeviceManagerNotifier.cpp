#include "DXRDeviceManagerNotifier.h"

#include <algorithm>

CXRef<DXRDeviceManagerNotifier> DXRDeviceManagerNotifier::initWithQueue(CXRef<dxr::WorkQueue> queue,
                                                                        Block block)
{
    return CXRef<DXRDeviceManagerNotifier>::adopt(
        new DXRDeviceManagerNotifier(std::move(queue), std::move(block)));
}

DXRDeviceManagerNotifier::DXRDeviceManagerNotifier(CXRef<dxr::WorkQueue> queue, Block block)
    : _queue(std::move(queue)), _block(std::move(block))
{}

void DXRDeviceManagerNotifier::notify(const Devices& connected, const Devices& disconnected,
                                      const Devices& updated)
{
    if (_queue)
        _queue->async([self = CXRef(this), connected, disconnected, updated] {
            self->_call(connected, disconnected, updated);
        });
    else
        _call(connected, disconnected, updated);
}

void DXRDeviceManagerNotifier::_call(const Devices& connected, const Devices& disconnected,
                                     const Devices& updated)
{
    {
        const std::lock_guard lock(_mutex);
        if (_hasEnded || !_block)
            return;
        _callers.push_back(std::this_thread::get_id());
    }
    _block(connected, disconnected, updated);
    const std::lock_guard lock(_mutex);
    _callers.erase(std::ranges::find(_callers, std::this_thread::get_id()));
    _returned.notify_all();
}

void DXRDeviceManagerNotifier::end(WhenRunning whenRunning)
{
    std::unique_lock lock(_mutex);
    _hasEnded = true;
    if (whenRunning == WhenRunning::Wait)
        _returned.wait(lock, [this] {
            return std::ranges::all_of(_callers,
                                       [](auto each) { return each == std::this_thread::get_id(); });
        });
}
