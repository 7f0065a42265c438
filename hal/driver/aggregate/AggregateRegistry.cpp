#include "AggregateRegistry.h"

AggregateRegistry::~AggregateRegistry()
{
    shutDown();
}

CXRef<dxr::SerialQueue> AggregateRegistry::prepare()
{
    const std::scoped_lock lock(_mutex);
    if (!_queue)
        _queue = dxr::SerialQueue::initWithLabel("dxr-aggregates");
    return _queue;
}

void AggregateRegistry::add(AudioObjectID deviceID, const CXRef<AggregateDevice>& device)
{
    const std::scoped_lock lock(_mutex);
    _devices.emplace(deviceID, device);
}

CXRef<AggregateDevice> AggregateRegistry::device(AudioObjectID deviceID) const
{
    const std::scoped_lock lock(_mutex);
    const auto found = _devices.find(deviceID);
    return found == _devices.end() ? nullptr : found->second;
}

CXRef<AggregateDevice> AggregateRegistry::remove(AudioObjectID deviceID)
{
    const std::scoped_lock lock(_mutex);
    auto node = _devices.extract(deviceID);
    return node ? std::move(node.mapped()) : nullptr;
}

void AggregateRegistry::devicesChanged()
{
    const std::scoped_lock lock(_mutex);
    if (_devices.empty() || _isRefreshing)
        return;
    _isRefreshing = true;
    _queue->async([this] { // capturing `this` is safe: shutDown() waits for the job
        {
            const std::scoped_lock inner(_mutex);
            _isRefreshing = false;
        }
        for (const CXRef<AggregateDevice>& device : _all())
            device->refresh();
    });
}

void AggregateRegistry::flush()
{
    CXRef<dxr::SerialQueue> queue;
    {
        const std::scoped_lock lock(_mutex);
        queue = _queue;
    }
    if (queue && !queue->isCurrent())
        queue->sync([] {});
}

void AggregateRegistry::shutDown()
{
    for (const CXRef<AggregateDevice>& device : _all())
        device->end();
    {
        const std::scoped_lock lock(_mutex);
        _devices.clear(); // ends queueing: devicesChanged() does nothing without devices
    }
    flush();
}

std::vector<CXRef<AggregateDevice>> AggregateRegistry::_all() const
{
    std::vector<CXRef<AggregateDevice>> all;
    const std::scoped_lock lock(_mutex);
    for (const auto& [deviceID, device] : _devices)
        all.push_back(device);
    return all;
}
