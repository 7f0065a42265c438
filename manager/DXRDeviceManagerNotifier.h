#pragma once

#include "DXRDevice.h"
#include "WorkQueue.h"

#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

/// A registered callback for changes of the device list, and the queue it is called on.
/// Threads:   any.
/// Real time: no.
class DXR_EXPORT DXRDeviceManagerNotifier final : public CXObject {
public:
    using Devices = std::set<CXRef<DXRDevice>>;
    /// Receives three sets: the devices that have connected, those that have disconnected, and all that have
    /// changed in any way, including the former two.
    using Block =
        CXBlock<void(const Devices& connected, const Devices& disconnected, const Devices& updated)>;
    enum class WhenRunning { Return, Wait };

    static CXRef<DXRDeviceManagerNotifier> initWithQueue(CXRef<dxr::WorkQueue> queue, Block block);

    const CXRef<dxr::WorkQueue>& queue() const noexcept { return _queue; } ///< null: on the caller's thread
    const Block& block() const noexcept { return _block; }

    /// Calls the block, unless end() was called: later on the queue, or without a queue at once.
    void notify(const Devices& connected, const Devices& disconnected, const Devices& updated);
    /// Prevents further calls of the block. With WhenRunning::Wait, also waits for a call in progress on
    /// another thread; the caller must then hold nothing that the block may wait for.
    void end(WhenRunning whenRunning);

private:
    DXRDeviceManagerNotifier(CXRef<dxr::WorkQueue> queue, Block block);
    ~DXRDeviceManagerNotifier() override = default;

    void _call(const Devices& connected, const Devices& disconnected, const Devices& updated);

    const CXRef<dxr::WorkQueue> _queue;
    const Block _block;
    std::mutex _mutex; // not held during a call; guards the rest
    std::condition_variable _returned;
    std::vector<std::thread::id> _callers; // one entry per call in progress
    bool _hasEnded = false;
};
