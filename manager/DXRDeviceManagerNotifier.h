#pragma once

#include "DXRDevice.h"
#include "WorkQueue.h"

#include <set>

/// Somebody who is told of changes of the device list, and where.
/// Threads:   immutable; any.
/// Real time: no.
class DXR_EXPORT DXRDeviceManagerNotifier final : public CXObject {
public:
    using Devices = std::set<CXRef<DXRDevice>>;
    /// Told which devices have connected, which have disconnected, and which have changed in any way, the former two
    /// included.
    using Block =
        CXBlock<void(const Devices& connected, const Devices& disconnected, const Devices& updated)>;

    static CXRef<DXRDeviceManagerNotifier> initWithQueue(CXRef<platform::WorkQueue> queue, Block block);

    const CXRef<platform::WorkQueue>& queue() const noexcept { return _queue; } ///< null: the caller's thread
    const Block& block() const noexcept { return _block; }

    /// Calls the block: some time later on the queue, or without one at once.
    void notify(const Devices& connected, const Devices& disconnected, const Devices& updated) const;

private:
    DXRDeviceManagerNotifier(CXRef<platform::WorkQueue> queue, Block block);
    ~DXRDeviceManagerNotifier() override = default;

    const CXRef<platform::WorkQueue> _queue;
    const Block _block;
};
