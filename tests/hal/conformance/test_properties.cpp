#include "AudioHardware.h"
#include "Conformance.h"

#include <thread>

namespace {

constexpr uint32_t input = kAudioObjectPropertyScopeInput;
constexpr uint32_t output = kAudioObjectPropertyScopeOutput;

TEST_F(Conformance, answersAStatusForWhatIsNotThere)
{
    const AudioObjectID device = plugged("Here", 2, 2);
    uint32_t size = 77;
    struct {
        const char* why;
        AudioObjectID object;
        AudioObjectPropertyAddress address;
        HALStatus status;
    } const rows[] = {
        {"no object", kAudioObjectUnknown, at(kAudioObjectPropertyName), kAudioHardwareBadObjectError},
        {"never an object", 0xFFFFFFFF, at(kAudioObjectPropertyName), kAudioHardwareBadObjectError},
        {"unknown selector", device, at(CXFourCharCode("zzzz")), kAudioHardwareUnknownPropertyError},
        {"unknown scope", device, at(kAudioDevicePropertyNominalSampleRate, CXFourCharCode("zzzz")),
         kAudioHardwareUnknownPropertyError},
        {"wildcards are for listeners", device,
         at(kAudioDevicePropertyMute, kAudioObjectPropertyScopeWildcard), kAudioHardwareUnknownPropertyError},
        {"unknown element", device, at(kAudioDevicePropertyVolumeScalar, output, 4711),
         kAudioHardwareUnknownPropertyError},
        {"a direction's property in global scope", device, at(kAudioDevicePropertyMute),
         kAudioHardwareUnknownPropertyError},
        {"a device's property of the system", kAudioObjectSystemObject, at(kAudioDevicePropertyDeviceUID),
         kAudioHardwareUnknownPropertyError},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(hal().propertySize(row.object, row.address, {}, size), row.status) << row.why;
        EXPECT_EQ(writeValue(hal(), row.object, row.address, 1.0F), row.status) << row.why;
    }
    EXPECT_EQ(size, 77U) << "a failed call must not touch the size";
}

TEST_F(Conformance, readsExactlyTheSizeItAnnouncesAndRefusesLessRoom)
{
    const AudioObjectID device = plugged("Sizes", 2, 2);
    const uint32_t selectors[] = {kAudioObjectPropertyClass,
                                  kAudioObjectPropertyOwner,
                                  kAudioDevicePropertyTransportType,
                                  kAudioDevicePropertyNominalSampleRate,
                                  kAudioDevicePropertyAvailableNominalSampleRates,
                                  kAudioDevicePropertyBufferFrameSize,
                                  kAudioDevicePropertyBufferFrameSizeRange,
                                  kAudioDevicePropertyStreams,
                                  kAudioDevicePropertyStreamConfiguration,
                                  kAudioDevicePropertyLatency,
                                  kAudioDevicePropertySafetyOffset,
                                  kAudioDevicePropertyMute,
                                  kAudioDevicePropertyVolumeScalar,
                                  kAudioDevicePropertyIsHidden,
                                  kAudioDevicePropertyDeviceIsRunning,
                                  kAudioDevicePropertyClockDomain};
    size_t answered = 0;
    for (const uint32_t selector : selectors) {
        for (const uint32_t scope : {kAudioObjectPropertyScopeGlobal, input, output}) {
            uint32_t announced = 0;
            if (hal().propertySize(device, at(selector, scope), {}, announced) != kAudioHardwareNoError)
                continue;
            ++answered;
            std::vector<std::byte> room(announced + 8);
            uint32_t written = 0;
            EXPECT_EQ(hal().readProperty(device, at(selector, scope), {}, room, written),
                      kAudioHardwareNoError);
            EXPECT_EQ(written, announced) << selector;
            if (announced > 0) {
                EXPECT_EQ(hal().readProperty(device, at(selector, scope), {},
                                             std::span(room).first(announced - 1), written),
                          kAudioHardwareBadPropertySizeError);
            }
        }
    }
    EXPECT_GT(answered, 20U);
}

TEST_F(Conformance, describesADeviceAndItsStreamsConsistently)
{
    std::string uid;
    const AudioObjectID device = plugged("Six", 0, 6, &uid);
    EXPECT_EQ(readText(hal(), device, at(kAudioObjectPropertyName)), "Six");
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
    EXPECT_EQ(channels, 6U);
}

TEST_F(Conformance, findsADeviceByItsUIDAndRefusesMalformedQuestions)
{
    std::string uid;
    const AudioObjectID device = plugged("Found", 0, 2, &uid);
    const CXRef<CXValue> text = CXValue::initWithPlist(uid);
    CXObject* question = text.get();
    AudioObjectID answer = 4711;
    const AudioValueTranslation good{&question, sizeof question, &answer, sizeof answer};
    const auto ask = [&](AudioValueTranslation translation, size_t bytes = sizeof(AudioValueTranslation)) {
        uint32_t size = 0;
        return hal().readProperty(kAudioObjectSystemObject, at(kAudioHardwarePropertyDeviceForUID), {},
                                  std::as_writable_bytes(std::span(&translation, 1)).first(bytes), size);
    };
    EXPECT_EQ(ask(good), kAudioHardwareNoError);
    EXPECT_EQ(answer, device);

    const auto with = [&](auto change) {
        AudioValueTranslation bad = good;
        change(bad);
        return ask(bad);
    };
    EXPECT_EQ(ask(good, 16), kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(with([](auto& t) { t.inputDataSize = 4; }), kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(with([](auto& t) { t.outputDataSize = 2; }), kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(with([](auto& t) { t.inputData = nullptr; }), kAudioHardwareIllegalOperationError);
    question = nullptr;
    EXPECT_EQ(ask(good), kAudioHardwareIllegalOperationError);
    const CXRef<CXValue> unknown = CXValue::initWithPlist(uid + "?");
    question = unknown.get();
    EXPECT_EQ(ask(good), kAudioHardwareNoError);
    EXPECT_EQ(answer, kAudioObjectUnknown);
}

TEST_F(Conformance, takesOverControlsAndAnnouncesThem)
{
    const AudioObjectID device = plugged("Controls", 0, 2);
    const auto volume = at(kAudioDevicePropertyVolumeScalar, output);
    const auto mute = at(kAudioDevicePropertyMute, output);
    ASSERT_TRUE(eventually([&] { return readValue<float>(hal(), device, volume).has_value(); }));
    const RecordingListener listener(hal(), device, anyAddress);

    EXPECT_EQ(writeValue(hal(), device, volume, 0.25F), kAudioHardwareNoError);
    EXPECT_TRUE(eventually([&] {
        return std::abs(readValue<float>(hal(), device, volume).value_or(9.0F) - 0.25F) < 1e-5F &&
               listener.heard(volume);
    }));
    EXPECT_NEAR(readValue<float>(hal(), device, at(kAudioDevicePropertyVolumeDecibels, output)).value_or(0),
                -36.12F, 0.01F);

    EXPECT_EQ(writeValue(hal(), device, mute, 1U), kAudioHardwareNoError);
    EXPECT_TRUE(
        eventually([&] { return readValue<uint32_t>(hal(), device, mute) == 1U && listener.heard(mute); }));

    EXPECT_EQ(writeValue(hal(), device, volume, 7.0F), kAudioHardwareNoError)
        << "beyond the end of the slider";
    EXPECT_TRUE(eventually([&] { return readValue<float>(hal(), device, volume) == 1.0F; }));
    EXPECT_EQ(writeValue(hal(), device, volume, std::nanf("")), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(writeValue(hal(), device, volume, 0.5), kAudioHardwareBadPropertySizeError)
        << "a double is no float";
    EXPECT_EQ(writeValue(hal(), device, at(kAudioDevicePropertyTransportType), 1U),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(writeValue(hal(), device, at(kAudioDevicePropertyNominalSampleRate), 12345.678),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(writeValue(hal(), device, at(kAudioDevicePropertyBufferFrameSize), 1U << 30),
              kAudioHardwareIllegalOperationError);
}

TEST_F(Conformance, announcesArrivalAndDepartureAndNeverReusesAnID)
{
    const RecordingListener listener(hal(), kAudioObjectSystemObject, at(kAudioHardwarePropertyDevices));
    std::vector<AudioObjectID> seen;
    for (int round = 0; round < 3; ++round) {
        const size_t before = listener.count();
        std::string uid;
        const AudioObjectID device = plugged("Comes and goes", 2, 2, &uid);
        EXPECT_TRUE(eventually([&] { return listener.count() > before; }));
        const auto streams = readList<AudioObjectID>(hal(), device, at(kAudioDevicePropertyStreams, output));
        for (const AudioObjectID id : streams) {
            EXPECT_EQ(std::ranges::find(seen, id), seen.end());
            seen.push_back(id);
        }
        EXPECT_EQ(std::ranges::find(seen, device), seen.end());
        seen.push_back(device);

        const size_t whilePlugged = listener.count();
        rig->unplug(uid);
        EXPECT_TRUE(
            eventually([&] { return readDevices(hal()).empty() && listener.count() > whilePlugged; }));
        EXPECT_FALSE(readText(hal(), device, at(kAudioObjectPropertyName)));
        for (const AudioObjectID id : streams)
            EXPECT_FALSE(readValue<uint32_t>(hal(), id, at(kAudioObjectPropertyClass)));
    }
}

TEST_F(Conformance, survivesReadersWhileDevicesComeAndGo)
{
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            while (!done) {
                for (const AudioObjectID device : readDevices(hal())) {
                    readText(hal(), device, at(kAudioObjectPropertyName));
                    channelsOf(device, output);
                    readValue<float>(hal(), device, at(kAudioDevicePropertyVolumeScalar, output, 1));
                    writeValue(hal(), device, at(kAudioDevicePropertyMute, output), 1U);
                }
            }
        });
    }
    for (int round = 0; round < 20; ++round) {
        const std::string a = rig->plug("A", 2, 2);
        const std::string b = rig->plug("B", 0, 6);
        rig->letTimePass();
        rig->unplug(a);
        rig->unplug(b);
    }
    done = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_TRUE(eventually([&] { return readDevices(hal()).empty(); }));
}

// What the published functions check before the model is asked.
TEST_F(Conformance, refusesNullPointers)
{
    const AudioObjectPropertyAddress address = at(kAudioHardwarePropertyDevices);
    uint32_t size = 4;
    AudioDeviceIOProcID proc = nullptr;
    constexpr HALStatus nope = kAudioHardwareIllegalOperationError;
    EXPECT_EQ(AudioObjectGetPropertyDataSize(1, nullptr, 0, nullptr, &size), nope);
    EXPECT_EQ(AudioObjectGetPropertyDataSize(1, &address, 0, nullptr, nullptr), nope);
    EXPECT_EQ(AudioObjectGetPropertyDataSize(1, &address, 8, nullptr, &size), nope);
    EXPECT_EQ(AudioObjectGetPropertyData(1, &address, 0, nullptr, &size, nullptr), nope);
    EXPECT_EQ(AudioObjectSetPropertyData(1, &address, 0, nullptr, 4, nullptr), nope);
    EXPECT_EQ(AudioObjectAddPropertyListener(1, &address, nullptr, nullptr), nope);
    EXPECT_EQ(AudioObjectAddPropertyListenerBlock(1, &address, nullptr, nullptr), nope);
    EXPECT_EQ(AudioDeviceCreateIOProcIDWithBlock(nullptr, 2, nullptr, {}), nope);
    EXPECT_EQ(AudioDeviceStart(4711, nullptr), kAudioHardwareBadDeviceError);
    EXPECT_EQ(AudioDeviceDestroyIOProcID(4711, &proc), kAudioHardwareBadDeviceError);
    EXPECT_EQ(AudioObjectGetPropertyDataSize(1, &address, 0, nullptr, &size), kAudioHardwareNoError);
}

} // namespace
