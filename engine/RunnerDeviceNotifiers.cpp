#include "RunnerDeviceNotifiers.h"

#include "DXRDeviceManager.h"

#include <algorithm>

RunnerDeviceNotifiers::~RunnerDeviceNotifiers() CX_UNCHECKED_QUEUE // no other thread has a reference
{
    for (const Entry& entry : _entries)
        DXRDeviceManager::sharedDeviceManager().removeDeviceNotifier(entry.wrapper);
}

void RunnerDeviceNotifiers::add(const Block& block, const CXRef<CXObject>& owner)
{
    CX_ASSERT_ON_QUEUE(_queue);
    if (_find(block) != _entries.end())
        return;
    const Block wrapper = _wrapped(block, owner);
    _entries.push_back({block, wrapper});
    DXRDeviceManager::sharedDeviceManager().addDeviceNotifier(nullptr, wrapper);
}

void RunnerDeviceNotifiers::remove(const Block& block)
{
    CX_ASSERT_ON_QUEUE(_queue);
    const auto found = _find(block);
    if (found == _entries.end())
        return;
    const Block wrapper = found->wrapper;
    _entries.erase(found);
    DXRDeviceManager::sharedDeviceManager().removeDeviceNotifier(wrapper);
}

std::vector<RunnerDeviceNotifiers::Entry>::iterator RunnerDeviceNotifiers::_find(const Block& block)
{
    return std::ranges::find(_entries, block, &Entry::block);
}

RunnerDeviceNotifiers::Block RunnerDeviceNotifiers::_wrapped(const Block& block, const CXRef<CXObject>& owner)
{
    return [this, weak = CXWeak(owner), block](const Devices& connected, const Devices& disconnected,
                                               const Devices& changed) {
        const CXRef<CXObject> strong = weak.lock();
        if (!strong)
            return;
        // Also right on the runner's queue: work there may look up a hidden device, and the update that this
        // makes is reported here on the same thread.
        _queue->dispatchAsync([this, weak, block, connected, disconnected, changed] {
            const CXRef<CXObject> stillThere = weak.lock();
            if (!stillThere)
                return;
            CX_ASSERT_ON_QUEUE(_queue);
            if (_find(block) != _entries.end())
                block(connected, disconnected, changed);
        });
    };
}
