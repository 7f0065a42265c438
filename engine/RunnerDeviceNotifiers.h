#pragma once

#include "CXDispatchQueue.h"
#include "DXRDeviceManagerNotifier.h"

#include <vector>

/// The blocks that a runner calls on its queue when devices of the computer change. The manager calls a
/// wrapper of each on its own queue, which only passes the notice on.
/// Threads:   functions that change the list, and the blocks, as work of `queue`; the destructor on any
///            thread, when no other has a reference to the owner.
/// Owns:      the blocks and their wrappers. Must not outlive the owner; a notice keeps the owner alive
///            while its block runs.
class RunnerDeviceNotifiers {
public:
    using Devices = DXRDeviceManagerNotifier::Devices;
    using Block = DXRDeviceManagerNotifier::Block;

    explicit RunnerDeviceNotifiers(CXRef<CXDispatchQueue> queue) : _queue(std::move(queue)) {}
    ~RunnerDeviceNotifiers();
    RunnerDeviceNotifiers(const RunnerDeviceNotifiers&) = delete;
    RunnerDeviceNotifiers& operator=(const RunnerDeviceNotifiers&) = delete;

    /// Does nothing if `block` was already added. This object must be a member of `owner`.
    void add(const Block& block, const CXRef<CXObject>& owner);
    /// The block is not called after it has returned.
    void remove(const Block& block);

private:
    struct Entry {
        Block block;
        Block wrapper; // the block registered with the manager
    };

    std::vector<Entry>::iterator _find(const Block& block) CX_ON_QUEUE(_queue);
    Block _wrapped(const Block& block, const CXRef<CXObject>& owner);

    const CXRef<CXDispatchQueue> _queue;
    std::vector<Entry> _entries CX_OWNED_BY_QUEUE(_queue);
};
