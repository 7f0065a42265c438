#include "DeviceFollower.h"

#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr AudioObjectPropertyAddress everyProperty{kAudioObjectPropertySelectorWildcard,
                                                   kAudioObjectPropertyScopeWildcard,
                                                   kAudioObjectPropertyElementWildcard};

} // namespace

DeviceFollower::DeviceFollower() : _descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    follow(kAudioObjectSystemObject);
}

DeviceFollower::~DeviceFollower()
{
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
    auto* self = static_cast<DeviceFollower*>(follower);
    const auto now = std::chrono::system_clock::now();
    {
        const std::scoped_lock lock(self->_mutex);
        for (uint32_t i = 0; i < count; ++i)
            self->_changes.push_back({objectID, addresses[i], now});
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(self->_descriptor, &one, sizeof one);
    return kAudioHardwareNoError;
}
