#pragma once

#include <chrono>
#include <dxr/DXRDeviceManager.h>
#include <mutex>
#include <set>
#include <vector>

/// Collects what changes on the hardware, for a thread that has a loop of its own.
/// Threads: one, the loop's; changes come in on the hardware's notification thread.
class DeviceFollower {
public:
    struct Change {
        AudioObjectID objectID;
        AudioObjectPropertyAddress address;
        std::chrono::system_clock::time_point when;
    };

    /// Follows the manager's list and the defaults. A change of the list is one of 'dev#' on the system object, one of
    /// a listed device as the manager sees it, of 'lnam' on that.
    DeviceFollower();
    ~DeviceFollower();
    DeviceFollower(const DeviceFollower&) = delete;
    DeviceFollower& operator=(const DeviceFollower&) = delete;

    /// Also follows every property of a device, until forget() or the end.
    void follow(AudioObjectID deviceID);
    void forget(AudioObjectID deviceID);

    /// Polls readable while changes wait.
    int fd() const noexcept { return _descriptor; }
    /// The changes that have come in since the last call, in their order.
    std::vector<Change> take();

private:
    void _add(std::vector<Change> changes);
    static HALStatus _note(AudioObjectID objectID, uint32_t count,
                           const AudioObjectPropertyAddress* addresses, void* follower);

    const int _descriptor; // an eventfd
    std::set<AudioObjectID> _followed;
    std::mutex _mutex;
    std::vector<Change> _changes; // under the mutex
    const DXRDeviceManager::NotifierBlock _notifier;
};
