#include "FakeCard.h"
#include "PipeWireTest.h"
#include "SessionManager.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <ctime>
#include <iostream>

namespace {

struct WithServer : testing::Test {
    PrivateServer server;
    VirtualDevices devices{server.remote()};
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));

    std::string text(AudioObjectID device, uint32_t selector)
    {
        return readText(*hal, device, at(selector)).value_or("(none)");
    }
    template <class Value> Value value(AudioObjectID device, uint32_t selector, uint32_t scope)
    {
        return readValue<Value>(*hal, device, at(selector, scope)).value_or(Value(-1));
    }
    float volume(AudioObjectID device, uint32_t element = 0)
    {
        return readValue<float>(*hal, device, at(kAudioDevicePropertyVolumeScalar, output, element))
            .value_or(-1.0F);
    }
    std::string sourceName(AudioObjectID device, uint32_t sourceID, uint32_t scope = output)
    {
        CXObject* name = nullptr;
        AudioValueTranslation question{&sourceID, sizeof sourceID, &name, sizeof name};
        uint32_t size = 0;
        if (hal->readProperty(device, at(kAudioDevicePropertyDataSourceNameForIDCFString, scope), {},
                              std::as_writable_bytes(std::span(&question, 1)), size) != 0)
            return "(none)";
        return CXRefCast<CXValue>(CXRef<CXObject>::adopt(name))->string();
    }
};

using PipeWireDevices = WithServer;

TEST_F(PipeWireDevices, describesNodesAsTheServerDoes)
{
    devices.plug({.name = "usb",
                  .channelCount = 6,
                  .properties = {{"node.description", "Desk Speakers"},
                                 {"device.bus", "usb"},
                                 {"device.serial", "S1"},
                                 {"device.vendor.name", "Some Maker"},
                                 {"device.vendor.id", "0x1235"},
                                 {"device.product.id", "0x8211"},
                                 {"audio.rate", "96000"}}});
    devices.plug({.name = "mic", .mediaClass = "Audio/Source/Virtual", .channelCount = 1});
    devices.plug({.name = "inner", .mediaClass = "Audio/Sink/Internal"});
    devices.plug({.name = "both", .mediaClass = "Audio/Duplex"});

    const AudioObjectID usb = waitForDevice(*hal, "usb");
    EXPECT_EQ(text(usb, kAudioObjectPropertyName), "Desk Speakers");
    EXPECT_EQ(text(usb, kAudioObjectPropertyManufacturer), "Some Maker");
    EXPECT_EQ(text(usb, kAudioDevicePropertyModelUID), "0x1235:0x8211");
    EXPECT_EQ(readValue<uint32_t>(*hal, usb, at(kAudioDevicePropertyTransportType)),
              kAudioDeviceTransportTypeUSB);
    EXPECT_EQ(channelsOf(*hal, usb, output), 6U);
    EXPECT_EQ(channelsOf(*hal, usb, input), 0U) << "a sink's monitors are no inputs";
    EXPECT_EQ(readValue<double>(*hal, usb, at(kAudioDevicePropertyNominalSampleRate)), 96000.0);
    EXPECT_EQ(
        readList<AudioValueRange>(*hal, usb, at(kAudioDevicePropertyAvailableNominalSampleRates)).size(), 1U);

    const AudioObjectID mic = waitForDevice(*hal, "mic");
    EXPECT_EQ(channelsOf(*hal, mic, input), 1U);
    EXPECT_EQ(channelsOf(*hal, mic, output), 0U) << "what feeds a virtual source is no output";
    EXPECT_EQ(
        readList<AudioValueRange>(*hal, mic, at(kAudioDevicePropertyAvailableNominalSampleRates)).size(), 6U);
    EXPECT_EQ(readValue<uint32_t>(*hal, mic, at(kAudioDevicePropertyClockDomain)),
              readValue<uint32_t>(*hal, usb, at(kAudioDevicePropertyClockDomain)));

    const AudioObjectID inner = waitForDevice(*hal, "inner");
    EXPECT_EQ(readValue<uint32_t>(*hal, inner, at(kAudioDevicePropertyIsHidden)), 1U);
    EXPECT_EQ(readValue<uint32_t>(*hal, usb, at(kAudioDevicePropertyIsHidden)), 0U);

    const AudioObjectID both = waitForDevice(*hal, "both");
    EXPECT_EQ(channelsOf(*hal, both, input), 2U);
    EXPECT_EQ(channelsOf(*hal, both, output), 2U);
}

TEST_F(PipeWireDevices, sharesVolumeAndMuteWithOtherClients)
{
    devices.plug({.name = "sink"});
    const AudioObjectID device = waitForDevice(*hal, "sink");
    NodeView other = devices.view("sink");
    other.setVolumes({0.125F, 0.001F});
    EXPECT_TRUE(eventually([&] { return std::abs(volume(device) - 0.5F) < 1e-6F; }));
    EXPECT_NEAR(volume(device, 2), 0.1F, 1e-6F);
    other.setMuted(true);
    EXPECT_TRUE(eventually([&] { return value<uint32_t>(device, kAudioDevicePropertyMute, output) == 1U; }));

    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyVolumeScalar, output), 1.0F), 0);
    EXPECT_EQ(volume(device), 1.0F) << "what a write has answered is there to read";
    EXPECT_TRUE(eventually([&] { return other.volumes().at(0) == 1.0F; }));
    EXPECT_FLOAT_EQ(other.volumes().at(1), 0.008F) << "the balance is kept";
    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyMute, output), 0U), 0);
    EXPECT_TRUE(eventually([&] { return !other.isMuted(); }));
}

TEST_F(PipeWireDevices, makesOneDeviceOfACardWithASinkAndASource)
{
    FakeCard headset(server.remote(), {.name = "headset", .microphone = true});
    FakeCard speakers(server.remote(), {.name = "speakers"});
    const AudioObjectID device = waitForDevice(*hal, headset.deviceName());
    EXPECT_EQ(text(device, kAudioObjectPropertyName), "Fake Card");
    EXPECT_EQ(channelsOf(*hal, device, input), 2U);
    EXPECT_EQ(channelsOf(*hal, device, output), 2U);
    EXPECT_EQ(sourceName(device, value<uint32_t>(device, kAudioDevicePropertyDataSource, input), input),
              "Microphone");
    EXPECT_NE(waitForDevice(*hal, speakers.sinkName()), kAudioObjectUnknown);
    EXPECT_EQ(readShownDevices(*hal).size(), 2U);
}

TEST_F(PipeWireDevices, followsAndSetsTheRoutesOfACard)
{
    FakeCard card(server.remote(), {});
    const AudioObjectID device = waitForDevice(*hal, card.sinkName());
    const auto sources = [&] {
        return readList<uint32_t>(*hal, device, at(kAudioDevicePropertyDataSources, output));
    };
    const auto source = [&] {
        return sourceName(device, value<uint32_t>(device, kAudioDevicePropertyDataSource, output));
    };
    EXPECT_EQ(sources().size(), 1U) << "nothing is plugged into the headphones' socket";
    EXPECT_EQ(source(), "Speakers");
    card.setHeadphonesPlugged(true);
    ASSERT_TRUE(eventually([&] { return sources().size() == 2; }));

    card.setRoute(FakeCard::Headphones); // as another client has it done
    EXPECT_TRUE(eventually([&] { return source() == "Headphones"; }));
    const std::vector<uint32_t> both = sources();
    const uint32_t speakers =
        *std::ranges::find(both, "Speakers", [&](uint32_t id) { return sourceName(device, id); });
    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyDataSource, output), speakers), 0);
    EXPECT_TRUE(card.waitUntil([](const FakeCard& now) { return now.outputRoute() == FakeCard::Speakers; }));
    EXPECT_EQ(source(), "Speakers");

    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyVolumeScalar, output), 0.5F), 0);
    EXPECT_TRUE(card.waitUntil([](const FakeCard& now) {
        return now.volumes(FakeCard::Speakers).at(1) == 0.125F;
    })) << "a device with routes takes its volume there";
    card.setMuted(FakeCard::Speakers, true);
    EXPECT_TRUE(eventually([&] { return value<uint32_t>(device, kAudioDevicePropertyMute, output) == 1U; }));
    card.setVolumes(FakeCard::Headphones, {0.001F, 0.001F});
    card.setRoute(FakeCard::Headphones);
    EXPECT_TRUE(eventually([&] { return std::abs(volume(device) - 0.1F) < 1e-6F; }))
        << "each route has a volume of its own";
}

TEST_F(PipeWireDevices, listsAndRunsWhatIsStrange)
{
    const std::string longName(65536, 'x');
#ifdef DXR_SANITIZED
    constexpr uint32_t many = 256; // a thousand would take longer than a start may
#else
    constexpr uint32_t many = 1024;
#endif
    const struct {
        const char* why;
        VirtualDevice device;
        std::string name;
        uint32_t channels;
    } rows[] = {
        {"no name", {.name = "a", .properties = {{"node.description", ""}}}, "", 2},
        {"no UTF-8",
         {.name = "b", .properties = {{"node.description", "\xFF\xFE z"}}},
         "\xEF\xBF\xBD\xEF\xBF\xBD z",
         2},
        {"colours", {.name = "c", .properties = {{"node.description", "\x1B[31mred"}}}, "\x1B[31mred", 2},
        {"long", {.name = "d", .properties = {{"node.description", longName}}}, longName, 2},
        {"no channels", {.name = "e", .channelCount = 0}, "Virtual e", 0},
        {"many channels", {.name = "f", .channelCount = many}, "Virtual f", many},
    };
    for (const auto& row : rows) {
        if (row.channels == 2)
            devices.plug(row.device);
        else
            devices.plugBareNode(row.device);
        const AudioObjectID device = waitForDevice(*hal, row.device.name);
        ASSERT_NE(device, kAudioObjectUnknown) << row.why;
        EXPECT_TRUE(text(device, kAudioObjectPropertyName) == row.name) << row.why;
        EXPECT_TRUE(eventually([&] { return channelsOf(*hal, device, output) == row.channels; })) << row.why;
        std::atomic<uint64_t> cycles{0};
        const RunningProc proc(*hal, device,
                               [&](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*,
                                   AudioBufferList* out, const AudioTimeStamp*) {
                                   cycles += (out ? out->buffers[0].numberChannels : 0) == row.channels;
                               });
        EXPECT_EQ(proc.status, kAudioHardwareNoError) << row.why;
        EXPECT_TRUE(eventually([&] { return cycles > 3; })) << row.why;
    }
    devices.plug({.name = std::string(60000, 'y')});
    EXPECT_NE(waitForDevice(*hal, std::string(60000, 'y')), kAudioObjectUnknown);
}

TEST_F(PipeWireDevices, makesAHiddenInputOfWhatASinkPlays)
{
    devices.plug({.name = "speakers", .channelCount = 6, .properties = {{"node.description", "Speakers"}}});
    FakeCard headset(server.remote(), {.name = "headset", .microphone = true});
    const AudioObjectID speakers = waitForDevice(*hal, "speakers");
    const AudioObjectID monitor = waitForDevice(*hal, "speakers.monitor");
    EXPECT_EQ(text(monitor, kAudioObjectPropertyName), "Monitor of Speakers");
    EXPECT_EQ(readValue<uint32_t>(*hal, monitor, at(kAudioDevicePropertyIsHidden)), 1U);
    EXPECT_EQ(channelsOf(*hal, monitor, input), 6U);
    EXPECT_EQ(channelsOf(*hal, monitor, output), 0U);
    EXPECT_EQ(readValue<uint32_t>(*hal, monitor, at(kAudioDevicePropertyClockDomain)),
              readValue<uint32_t>(*hal, speakers, at(kAudioDevicePropertyClockDomain)));
    for (const uint32_t selector :
         {kAudioDevicePropertyVolumeScalar, kAudioDevicePropertyMute, kAudioDevicePropertyDataSource})
        EXPECT_EQ(readValue<uint32_t>(*hal, monitor, at(selector, input)), std::nullopt) << selector;

    const AudioObjectID ofCard = waitForDevice(*hal, headset.deviceName() + ".monitor");
    EXPECT_EQ(text(ofCard, kAudioObjectPropertyName), "Monitor of Fake Card");
    EXPECT_EQ(readValue<uint32_t>(*hal, ofCard, at(kAudioDevicePropertyDataSource, input)), std::nullopt);

    // Where there is no source, the session manager calls the sink the default source.
    const auto defaultInput = at(kAudioHardwarePropertyDefaultInputDevice);
    MetadataView metadata(devices.client(), "default");
    metadata.set("default.audio.source", R"({ "name": "speakers" })");
    metadata.set("default.audio.sink", R"({ "name": "speakers" })");
    EXPECT_TRUE(eventually([&] {
        return readValue<AudioObjectID>(*hal, kAudioObjectSystemObject,
                                        at(kAudioHardwarePropertyDefaultOutputDevice)) == speakers;
    }));
    EXPECT_EQ(readValue<AudioObjectID>(*hal, kAudioObjectSystemObject, defaultInput), kAudioObjectUnknown);
    EXPECT_NE(writeValue(*hal, kAudioObjectSystemObject, defaultInput, monitor), 0);

    devices.unplug("speakers");
    EXPECT_TRUE(eventually([&] { return deviceWithUID(*hal, "speakers.monitor") == kAudioObjectUnknown; }));
}

TEST_F(PipeWireDevices, tellsTwoOfOneNameApartAndKeepsTheirUIDs)
{
    devices.plug({.name = "twin"});
    devices.plug({.name = "twin"});
    const AudioObjectID first = waitForDevice(*hal, "twin");
    const AudioObjectID second = waitForDevice(*hal, "twin#2");
    EXPECT_NE(second, kAudioObjectUnknown);
    EXPECT_NE(first, second);
    devices.unplug("twin");
    EXPECT_TRUE(eventually([&] { return readShownDevices(*hal).size() == 1; }));
    devices.plug({.name = "twin"});
    EXPECT_TRUE(eventually([&] {
        return deviceWithUID(*hal, "twin") != kAudioObjectUnknown &&
               deviceWithUID(*hal, "twin#2") != kAudioObjectUnknown;
    }));
}

TEST_F(PipeWireDevices, choosesTheDefaultDevicesWithoutASessionManager)
{
    devices.plug({.name = "one"});
    devices.plug({.name = "two"});
    const AudioObjectID one = waitForDevice(*hal, "one");
    const AudioObjectID two = waitForDevice(*hal, "two");
    const auto defaultOutput = at(kAudioHardwarePropertyDefaultOutputDevice);
    EXPECT_EQ(writeValue(*hal, kAudioObjectSystemObject, defaultOutput, one), 0);
    EXPECT_EQ(readValue<AudioObjectID>(*hal, kAudioObjectSystemObject, defaultOutput), one);
    MetadataView metadata(devices.client(), "default");
    EXPECT_TRUE(metadata.waitForValue("default.configured.audio.sink", R"({ "name": "one" })"));
    metadata.set("default.audio.sink", R"({ name = two })");
    EXPECT_TRUE(eventually([&] {
        return readValue<AudioObjectID>(*hal, kAudioObjectSystemObject, defaultOutput) == two &&
               readValue<AudioObjectID>(*hal, kAudioObjectSystemObject,
                                        at(kAudioHardwarePropertyDefaultSystemOutputDevice)) == two;
    }));
}

// A read or a listener that meets devices as they go finds each as it was, or gone: nothing in between.
TEST_F(PipeWireDevices, goAllAtOnceWithoutAFalseValue)
{
    constexpr int count = 400;
    const auto name = at(kAudioObjectPropertyName);
    const auto uid = at(kAudioDevicePropertyDeviceUID);
    std::atomic<size_t> falseValues{0}, announcements{0};
    const HALListener listener{
        nullptr, nullptr, [&](uint32_t, const AudioObjectPropertyAddress*) { ++announcements; }, nullptr};
    MetadataView settings(devices.client(), "settings");
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < count; ++i)
            devices.plug({.name = "sink" + std::to_string(i)});
        ASSERT_TRUE(eventually([&] { return readShownDevices(*hal).size() == count; }));
        std::atomic<uint64_t> cycles{0};
        std::vector<std::unique_ptr<RunningProc>> procs;
        for (const AudioObjectID device : readDevices(*hal)) {
            for (const auto& address :
                 {name, uid, at(kAudioDevicePropertyTransportType), at(kAudioDevicePropertyStreams, output)})
                EXPECT_EQ(hal->addListener(device, address, listener), 0);
            if (procs.size() < 20)
                procs.push_back(std::make_unique<RunningProc>(*hal, device, [&](auto...) { ++cycles; }));
        }
        EXPECT_TRUE(eventually([&] { return cycles > 1000; }));
        std::atomic<bool> done{false};
        std::thread reader([&] {
            while (!done)
                for (const AudioObjectID device : readDevices(*hal)) {
                    const uint32_t channels =
                        channelsOf(*hal, device, output) + channelsOf(*hal, device, input);
                    const bool isFalse = readText(*hal, device, uid) == "" ||
                                         readText(*hal, device, name) == "" ||
                                         (channels == 0 && readText(*hal, device, uid).has_value());
                    falseValues += isFalse ? 1 : 0;
                }
        });
        std::thread user([&] { // stops IO on devices that go just then
            for (auto& proc : procs)
                proc.reset();
        });
        devices.unplugAll();
        settings.set("clock.force-quantum", round % 2 == 0 ? "256" : "0"); // which changes every device
        EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty(); }));
        done = true;
        user.join();
        reader.join();
    }
    EXPECT_EQ(falseValues, 0U);
    EXPECT_EQ(announcements, 0U);
}

double processorMilliseconds()
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) * 1e-6;
}

// Time on the wall is the server's and the machine's; what grows with us is our own processor time.
TEST_F(PipeWireDevices, costTheSameHoweverManyCameBefore)
{
    constexpr int rounds = 10;
    constexpr int perRound = 1000;
    std::vector<double> milliseconds;
    for (int round = 0; round < rounds; ++round) {
        const double before = processorMilliseconds();
        for (int i = 0; i < perRound; ++i)
            devices.plug({.name = "device-" + std::to_string(i)});
        ASSERT_TRUE(eventually([&] {
            return readDevices(*hal).size() == 2 * perRound; // each with its monitor
        }));
        for (int i = 0; i < perRound; ++i)
            devices.unplug("device-" + std::to_string(i));
        ASSERT_TRUE(eventually([&] { return readDevices(*hal).empty(); }));
        milliseconds.push_back((processorMilliseconds() - before) / perRound);
        std::cout << "round " << round << ": " << milliseconds.back() << " ms for each device\n";
    }
    std::ranges::sort(milliseconds.begin(), milliseconds.begin() + rounds / 2);
    std::ranges::sort(milliseconds.begin() + rounds / 2, milliseconds.end());
    EXPECT_LT(milliseconds[rounds * 3 / 4], 3 * milliseconds[rounds / 4]);
}

TEST(PipeWireDefaults, areTheSessionManagersToSettle)
{
    PrivateServer server({.metadata = false});
    SessionManager manager(server);
    VirtualDevices devices(server.remote());
    devices.plug({.name = "first", .properties = {{"priority.session", "1000"}}});
    devices.plug({.name = "second", .properties = {{"priority.session", "500"}}});
    devices.plug({.name = "mic", .mediaClass = "Audio/Source", .properties = {{"priority.session", "1000"}}});
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const auto isDefault = [&](uint32_t selector, const char* uid) {
        const auto device = readValue<AudioObjectID>(*hal, kAudioObjectSystemObject, at(selector));
        return device && readText(*hal, *device, at(kAudioDevicePropertyDeviceUID)) == uid;
    };
    EXPECT_TRUE(eventually([&] { return isDefault(kAudioHardwarePropertyDefaultOutputDevice, "first"); }));
    EXPECT_TRUE(eventually([&] { return isDefault(kAudioHardwarePropertyDefaultInputDevice, "mic"); }));
    EXPECT_EQ(writeValue(*hal, kAudioObjectSystemObject, at(kAudioHardwarePropertyDefaultOutputDevice),
                         deviceWithUID(*hal, "second")),
              0);
    EXPECT_TRUE(eventually([&] { return isDefault(kAudioHardwarePropertyDefaultOutputDevice, "second"); }));
    devices.unplug("second");
    EXPECT_TRUE(eventually([&] { return isDefault(kAudioHardwarePropertyDefaultOutputDevice, "first"); }));
}

} // namespace
