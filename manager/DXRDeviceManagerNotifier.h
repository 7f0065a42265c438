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
    /// Receives the devices that have connected, that have disconnected, and that have changed in any way,
    /// the former two included.
    using Block =
        CXBlock<void(const Devices& connected, const Devices& disconnected, const Devices& updated)>;
    enum class WhenRunning { Return, Wait };

    static CXRef<DXRDeviceManagerNotifier> initWithQueue(CXRef<dxr::WorkQueue> queue, Block block);

    const CXRef<dxr::WorkQueue>& queue() const noexcept { return _queue; } ///< null: the caller's thread
    const Block& block() const noexcept { return _block; }

    /// Calls the block, unless end() was called: some time later on the queue, or without one at once.
    void notify(const Devices& connected, const Devices& disconnected, const Devices& updated);
    /// The block is not called from now on. A call that is running on another thread is over when this
    /// returns, if `whenRunning` says Wait: the caller then holds nothing that the block may wait for.
    void end(WhenRunning whenRunning);

private:
    DXRDeviceManagerNotifier(CXRef<dxr::WorkQueue> queue, Block block);
    ~DXRDeviceManagerNotifier() override = default;

    void _call(const Devices& connected, const Devices& disconnected, const Devices& updated);

    const CXRef<dxr::WorkQueue> _queue;
    const Block _block;
    std::mutex _mutex; // not held during a call; guards the rest
    std::condition_variable _returned;
    std::vector<std::thread::id> _callers; // the threads in a call, once for each
    bool _hasEnded = false;
};
