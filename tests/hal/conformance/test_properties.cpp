#include "Conformance.h"

#include <cmath>

namespace {

TEST_F(Conformance, returnsAStatusForWhatDoesNotExist)
{
    const AudioObjectID device = plugged("Here", 2, 2);
    constexpr uint32_t unknown = CXFourCharCode("zzzz");
    uint32_t size = 77;
    struct {
        const char* why;
        AudioObjectID object;
        AudioObjectPropertyAddress address;
        HALStatus status = kAudioHardwareUnknownPropertyError;
    } const rows[] = {
        {"no object", 0xFFFFFFFF, at(kAudioObjectPropertyName), kAudioHardwareBadObjectError},
        {"selector", device, at(unknown)},
        {"scope", device, at(kAudioDevicePropertyNominalSampleRate, unknown)},
        {"a listener's scope", device, at(kAudioDevicePropertyMute, kAudioObjectPropertyScopeWildcard)},
        {"element", device, at(kAudioDevicePropertyVolumeScalar, output, 4711)},
        {"a direction's property in global scope", device, at(kAudioDevicePropertyMute)},
        {"a device's property", kAudioObjectSystemObject, at(kAudioDevicePropertyDeviceUID)},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(hal().propertySize(row.object, row.address, {}, size), row.status) << row.why;
        EXPECT_EQ(writeValue(hal(), row.object, row.address, 1.0F), row.status) << row.why;
    }
    EXPECT_EQ(size, 77U) << "a failed call must not touch the size";
}

TEST_F(Conformance, describesADeviceAndItsStreamsConsistently)
{
    const AudioObjectID device = plugged("Eight", 0, 8);
    EXPECT_TRUE(!rig->setsNames() || readText(hal(), device, at(kAudioObjectPropertyName)) == "Eight");
    EXPECT_EQ(readText(hal(), device, at(kAudioDevicePropertyDeviceUID)), uid);
    EXPECT_TRUE(readList<AudioObjectID>(hal(), device, at(kAudioDevicePropertyStreams, input)).empty());
    const auto streams = readList<AudioObjectID>(hal(), device, at(kAudioDevicePropertyStreams, output));
    ASSERT_FALSE(streams.empty());
    uint32_t channels = 0;
    for (const AudioObjectID stream : streams) {
        const auto format =
            readValue<AudioStreamBasicDescription>(hal(), stream, at(kAudioStreamPropertyVirtualFormat));
        ASSERT_TRUE(format);
        EXPECT_EQ(readValue<uint32_t>(hal(), stream, at(kAudioStreamPropertyStartingChannel)), channels + 1);
        EXPECT_EQ(format->sampleRate,
                  readValue<double>(hal(), device, at(kAudioDevicePropertyNominalSampleRate)));
        EXPECT_EQ(readValue<AudioObjectID>(hal(), stream, at(kAudioObjectPropertyOwner)), device);
        channels += format->channelsPerFrame;
    }
    EXPECT_EQ(channels, 8U);
}

TEST_F(Conformance, takesOverControlsAndAnnouncesThem)
{
    const AudioObjectID device = plugged("Controls", 0, 2);
    const auto volume = at(kAudioDevicePropertyVolumeScalar, output);
    const auto mute = at(kAudioDevicePropertyMute, output);
    ASSERT_TRUE(eventually([&] { return readValue<float>(hal(), device, volume).has_value(); }));
    writeValue(hal(), device, mute, 0U); // cards may be muted initially
    EXPECT_TRUE(eventually([&] { return readValue<uint32_t>(hal(), device, mute) == 0U; }));
    const RecordingListener listener(hal(), device, anyAddress);

    EXPECT_EQ(writeValue(hal(), device, volume, 0.25F), kAudioHardwareNoError);
    EXPECT_TRUE(eventually([&] {
        return std::abs(readValue<float>(hal(), device, volume).value_or(9.0F) - 0.25F) <
                   rig->volumeTolerance() &&
               listener.includes(volume);
    }));
    const float set = readValue<float>(hal(), device, volume).value_or(9.0F);
    EXPECT_NEAR(readValue<float>(hal(), device, at(kAudioDevicePropertyVolumeDecibels, output)).value_or(0),
                60.0F * std::log10(set), 0.01F);

    EXPECT_EQ(writeValue(hal(), device, mute, 1U), kAudioHardwareNoError);
    EXPECT_TRUE(eventually([&] { return listener.includes(mute); }));
    EXPECT_TRUE(eventually([&] { return readValue<uint32_t>(hal(), device, mute) == 1U; }));

    EXPECT_EQ(writeValue(hal(), device, volume, 7.0F), kAudioHardwareNoError) << "beyond the slider's end";
    EXPECT_TRUE(eventually([&] { return readValue<float>(hal(), device, volume) == 1.0F; }));
    const auto expectRefused = [&](const AudioObjectPropertyAddress& address, auto value, HALStatus status) {
        EXPECT_EQ(writeValue(hal(), device, address, value), status) << address.selector;
    };
    expectRefused(volume, std::nanf(""), kAudioHardwareIllegalOperationError);
    expectRefused(volume, 0.5, kAudioHardwareBadPropertySizeError); // a double is not a float
    expectRefused(at(kAudioDevicePropertyTransportType), 1U, kAudioHardwareIllegalOperationError);
    expectRefused(at(kAudioDevicePropertyNominalSampleRate), 12345.678, kAudioHardwareIllegalOperationError);
    expectRefused(at(kAudioDevicePropertyBufferFrameSize), 1U << 30, kAudioHardwareIllegalOperationError);
}

TEST_F(Conformance, announcesArrivalAndDepartureAndNeverReusesAnID)
{
    const RecordingListener listener(hal(), kAudioObjectSystemObject, at(kAudioHardwarePropertyDevices));
    std::vector<AudioObjectID> seen;
    for (int round = 0; round < 3; ++round) {
        const size_t before = listener.count();
        const AudioObjectID device = plugged("Comes and goes", 2, 2);
        EXPECT_TRUE(eventually([&] { return listener.count() > before; }));
        auto objects = readList<AudioObjectID>(hal(), device, at(kAudioDevicePropertyStreams, output));
        objects.push_back(device);
        for (const AudioObjectID id : objects)
            EXPECT_EQ(std::ranges::count(seen, id), 0);
        seen.insert(seen.end(), objects.begin(), objects.end());

        const size_t whilePlugged = listener.count();
        rig->unplug(uid);
        EXPECT_TRUE(
            eventually([&] { return readDevices(hal()).empty() && listener.count() > whilePlugged; }));
        for (const AudioObjectID id : objects)
            EXPECT_FALSE(readValue<uint32_t>(hal(), id, at(kAudioObjectPropertyClass)));
    }
}

TEST_F(Conformance, survivesUsersWhileDevicesComeAndGo)
{
    const auto use = [&](const std::stop_token& end) {
        useDevices(hal(), [&] { return end.stop_requested(); });
    };
    const std::jthread users[] = {std::jthread(use), std::jthread(use)};
    for (int round = 0; round < 20; ++round) {
        const std::string a = rig->plug("A", 2, 2);
        const std::string b = rig->plug("B", 0, 8);
        rig->letTimePass();
        rig->unplug(a);
        rig->unplug(b);
    }
    EXPECT_TRUE(eventually([&] { return readDevices(hal()).empty(); }));
}

} // namespace
