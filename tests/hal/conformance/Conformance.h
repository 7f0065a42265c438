#pragma once

#include "ConformanceRig.h"
#include "HALReads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

/// A test of the promises in HALModel.h, over the driver that the program was linked with.
class Conformance : public testing::Test {
protected:
    HALModel& hal() { return rig->model(); }

    /// Waits, for so long that only a fault can take longer, until `condition` holds.
    bool eventually(const std::function<bool()>& condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            rig->letTimePass();
        }
        return true;
    }

    /// Plugs a device in and waits for its ID.
    AudioObjectID plugged(const std::string& name, uint32_t inputs, uint32_t outputs,
                          std::string* uid = nullptr)
    {
        const std::string newUID = rig->plug(name, inputs, outputs);
        AudioObjectID device = kAudioObjectUnknown;
        EXPECT_TRUE(
            eventually([&] { return (device = deviceWithUID(hal(), newUID)) != kAudioObjectUnknown; }));
        EXPECT_TRUE(eventually([&] { // its streams may take a moment more
            return channelsOf(device, kAudioObjectPropertyScopeInput) == inputs &&
                   channelsOf(device, kAudioObjectPropertyScopeOutput) == outputs;
        }));
        if (uid)
            *uid = newUID;
        return device;
    }

    uint32_t channelsOf(AudioObjectID device, uint32_t scope)
    {
        const auto bytes =
            readList<std::byte>(hal(), device, at(kAudioDevicePropertyStreamConfiguration, scope));
        uint32_t channels = 0;
        for (size_t offset = offsetof(AudioBufferList, buffers); offset + sizeof(AudioBuffer) <= bytes.size();
             offset += sizeof(AudioBuffer)) {
            AudioBuffer buffer{};
            std::memcpy(&buffer, bytes.data() + offset, sizeof buffer);
            channels += buffer.numberChannels;
        }
        return channels;
    }

    std::unique_ptr<ConformanceRig> rig = makeConformanceRig();
};

/// Records the changes that are announced of one object.
class RecordingListener {
public:
    RecordingListener(HALModel& hal, AudioObjectID object, AudioObjectPropertyAddress address,
                      CXRef<dxr::WorkQueue> queue = nullptr, std::function<void()> whenCalled = {})
        : _hal(hal), _object(object),
          _address(address), _listener{nullptr, nullptr,
                                       [this, whenCalled](uint32_t count,
                                                          const AudioObjectPropertyAddress* addresses) {
                                           {
                                               const std::scoped_lock lock(_mutex);
                                               _told.insert(_told.end(), addresses, addresses + count);
                                           }
                                           if (whenCalled)
                                               whenCalled();
                                       },
                                       std::move(queue)}
    {
        EXPECT_EQ(_hal.addListener(_object, _address, _listener), kAudioHardwareNoError);
    }
    ~RecordingListener() { remove(); }
    RecordingListener(const RecordingListener&) = delete;
    RecordingListener& operator=(const RecordingListener&) = delete;

    HALStatus remove() { return _hal.removeListener(_object, _address, _listener); }
    size_t count() const
    {
        const std::scoped_lock lock(_mutex);
        return _told.size();
    }
    bool heard(const AudioObjectPropertyAddress& address) const
    {
        const std::scoped_lock lock(_mutex);
        return std::ranges::find(_told, address) != _told.end();
    }

private:
    HALModel& _hal;
    const AudioObjectID _object;
    const AudioObjectPropertyAddress _address;
    mutable std::mutex _mutex;
    std::vector<AudioObjectPropertyAddress> _told;
    const HALListener _listener;
};

inline constexpr AudioObjectPropertyAddress anyAddress{kAudioObjectPropertySelectorWildcard,
                                                       kAudioObjectPropertyScopeWildcard,
                                                       kAudioObjectPropertyElementWildcard};
