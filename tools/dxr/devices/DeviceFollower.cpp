#include "DeviceFollower.h"

#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr AudioObjectPropertyAddress everyProperty{kAudioObjectPropertySelectorWildcard,
                                                   kAudioObjectPropertyScopeWildcard,
                                                   kAudioObjectPropertyElementWildcard};
constexpr AudioObjectPropertyAddress theList{kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal,
                                             kAudioObjectPropertyElementMain};
constexpr AudioObjectPropertyAddress theName{kAudioObjectPropertyName, kAudioObjectPropertyScopeGlobal,
                                             kAudioObjectPropertyElementMain};

} // namespace

DeviceFollower::DeviceFollower()
    : _descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      _notifier([this](const auto& connected, const auto& disconnected, const auto& updated) {
          const auto now = std::chrono::system_clock::now();
          std::vector<Change> changes;
          if (!connected.empty() || !disconnected.empty())
              changes.push_back({kAudioObjectSystemObject, theList, now});
          for (const CXRef<DXRDevice>& device : updated) {
              if (const AudioObjectID deviceID = device->deviceID())
                  changes.push_back({deviceID, theName, now});
          }
          _add(std::move(changes));
      })
{
    DXRDeviceManager::sharedDeviceManager().addDeviceNotifier(nullptr, _notifier);
    follow(kAudioObjectSystemObject);
}

DeviceFollower::~DeviceFollower()
{
    DXRDeviceManager::sharedDeviceManager().removeDeviceNotifier(_notifier);
    DXRDeviceManager::queue().sync([] {}); // it is not running any more
    for (const AudioObjectID objectID : _followed)
        AudioObjectRemovePropertyListener(objectID, &everyProperty, _note, this);
    close(_descriptor);
}

void DeviceFollower::follow(AudioObjectID deviceID)
{
    if (AudioObjectAddPropertyListener(deviceID, &everyProperty, _note, this) == kAudioHardwareNoError)
        _followed.insert(deviceID);
}

void DeviceFollower::forget(AudioObjectID deviceID)
{
    if (_followed.erase(deviceID) > 0)
        AudioObjectRemovePropertyListener(deviceID, &everyProperty, _note, this);
}

std::vector<DeviceFollower::Change> DeviceFollower::take()
{
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t cleared = read(_descriptor, &count, sizeof count);
    std::vector<Change> taken;
    const std::scoped_lock lock(_mutex);
    taken.swap(_changes);
    return taken;
}

HALStatus DeviceFollower::_note(AudioObjectID objectID, uint32_t count,
                                const AudioObjectPropertyAddress* addresses, void* follower)
{
    const auto now = std::chrono::system_clock::now();
    std::vector<Change> changes;
    for (uint32_t i = 0; i < count; ++i) {
        if (objectID != kAudioObjectSystemObject || addresses[i].selector != kAudioHardwarePropertyDevices)
            changes.push_back({objectID, addresses[i], now}); // the manager reports the list once it has it
    }
    static_cast<DeviceFollower*>(follower)->_add(std::move(changes));
    return kAudioHardwareNoError;
}

void DeviceFollower::_add(std::vector<Change> changes)
{
    if (changes.empty())
        return;
    {
        const std::scoped_lock lock(_mutex);
        _changes.insert(_changes.end(), changes.begin(), changes.end());
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(_descriptor, &one, sizeof one);
}
