#include "FakeCard.h"
#include "PipeWireTest.h"

#include <pipewire/filter.h>
#include <spa/param/latency-utils.h>

namespace {

class PipeWireDevices : public PipeWireTest {
protected:
    using PipeWireTest::PipeWireTest;

    std::string text(AudioObjectID device, uint32_t selector)
    {
        return readText(*hal, device, at(selector)).value_or("(none)");
    }
    bool volumeBecomes(AudioObjectID device, float volume)
    {
        return eventually([&] {
            const auto now = read<float>(device, kAudioDevicePropertyVolumeScalar, output);
            return now && std::abs(*now - volume) < 1e-6F;
        });
    }
    std::string sourceName(AudioObjectID device, uint32_t sourceID, uint32_t scope = output)
    {
        CXObject* name = nullptr;
        AudioValueTranslation question{&sourceID, sizeof sourceID, &name, sizeof name};
        uint32_t size = 0;
        EXPECT_EQ(hal->readProperty(device, at(kAudioDevicePropertyDataSourceNameForIDCFString, scope), {},
                                    std::as_writable_bytes(std::span(&question, 1)), size),
                  0);
        return CXRefCast<CXValue>(CXRef<CXObject>::adopt(name))->string();
    }
    std::string sourceOf(AudioObjectID device, uint32_t scope = output)
    {
        return sourceName(device, *read<uint32_t>(device, kAudioDevicePropertyDataSource, scope), scope);
    }
    bool defaultBecomes(uint32_t selector, const std::string& uid)
    {
        return becomes(kAudioObjectSystemObject, selector, waitForDevice(*hal, uid));
    }
    static constexpr uint32_t uidSelector = kAudioDevicePropertyDeviceUID;
    static constexpr uint32_t defaultOutput = kAudioHardwarePropertyDefaultOutputDevice;
};

TEST_F(PipeWireDevices, describesNodesAsTheServerDoes)
{
    const NodeProperties properties{{"node.description", "Desk Speakers"}, {"device.bus", "usb"},
                                    {"device.vendor.name", "Some Maker"},  {"device.vendor.id", "0x1235"},
                                    {"device.product.id", "0x8211"},       {"audio.rate", "96000"}};
    const AudioObjectID usb = plug({.name = "usb", .channelCount = 6, .properties = properties});
    const AudioObjectID mic = plug({.name = "mic", .mediaClass = "Audio/Source/Virtual", .channelCount = 1});
    const AudioObjectID inner = plug({.name = "inner", .mediaClass = "Audio/Sink/Internal"});
    const AudioObjectID both = plug({.name = "both", .mediaClass = "Audio/Duplex"});
    EXPECT_EQ(text(usb, kAudioObjectPropertyName), "Desk Speakers");
    EXPECT_EQ(text(usb, kAudioObjectPropertyManufacturer), "Some Maker");
    EXPECT_EQ(text(usb, kAudioDevicePropertyModelUID), "0x1235:0x8211");
    EXPECT_EQ(read<uint32_t>(usb, kAudioDevicePropertyTransportType), kAudioDeviceTransportTypeUSB);
    EXPECT_EQ(read<double>(usb, kAudioDevicePropertyNominalSampleRate), 96000.0);
    EXPECT_EQ(read<uint32_t>(usb, kAudioDevicePropertyLatency, output), 0U);
    EXPECT_EQ(read<uint32_t>(mic, kAudioDevicePropertyClockDomain),
              read<uint32_t>(usb, kAudioDevicePropertyClockDomain));
    const struct {
        AudioObjectID device;
        uint32_t inputs, outputs, isHidden;
        size_t rates;
    } rows[] = {{usb, 0, 6, 0, 1}, {mic, 1, 0, 0, 6}, {inner, 0, 2, 1, 6}, {both, 2, 2, 0, 6}};
    for (const auto& row : rows) {
        SCOPED_TRACE(text(row.device, uidSelector));
        EXPECT_EQ(channelsOf(*hal, row.device, input), row.inputs) << "monitors are no inputs";
        EXPECT_EQ(channelsOf(*hal, row.device, output), row.outputs);
        EXPECT_EQ(read<uint32_t>(row.device, kAudioDevicePropertyIsHidden), row.isHidden);
        const auto rates = at(kAudioDevicePropertyAvailableNominalSampleRates);
        EXPECT_EQ(readList<AudioValueRange>(*hal, row.device, rates).size(), row.rates);
    }
}

TEST_F(PipeWireDevices, sharesVolumeAndMuteWithOtherClients)
{
    const AudioObjectID device = plug({.name = "sink"});
    client.setVolumes("sink", {0.125F, 0.001F});
    EXPECT_TRUE(volumeBecomes(device, 0.5F));
    EXPECT_NEAR(*read<float>(device, kAudioDevicePropertyVolumeScalar, output, 2), 0.1F, 1e-6F);
    client.run("pw-cli set-param sink Props '{ mute: true }'");
    EXPECT_TRUE(becomes(device, kAudioDevicePropertyMute, 1U, output));

    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyVolumeScalar, output), 1.0F), 0);
    EXPECT_EQ(read<float>(device, kAudioDevicePropertyVolumeScalar, output), 1.0F) << "at once";
    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyMute, output), 0U), 0);
    EXPECT_TRUE(eventually([&] {
        const CXPlist dumped = CXPlist::parse(client.run("pw-dump sink"));
        const CXPlist& props = dumped.at("/0/info/params/Props/0"_json_pointer);
        return props.at("channelVolumes").at(0) == 1.0 && props.at("mute") == false &&
               std::abs(props.at("channelVolumes").at(1).get<double>() - 0.008) < 1e-6; // in balance
    }));

    for (int round = 0; round < 50; ++round) {
        const float left = 0.1F + 0.016F * static_cast<float>(round);
        const auto set = [&](uint32_t element, float volume) {
            const auto address = at(kAudioDevicePropertyVolumeScalar, output, element);
            EXPECT_EQ(writeValue(*hal, device, address, volume), 0);
        };
        std::thread other(set, 1, left);
        set(2, 1.0F - left);
        other.join();
        EXPECT_NEAR(*read<float>(device, kAudioDevicePropertyVolumeScalar, output, 1), left, 1e-4F);
        EXPECT_NEAR(*read<float>(device, kAudioDevicePropertyVolumeScalar, output, 2), 1.0F - left, 1e-4F);
    }
}

TEST_F(PipeWireDevices, followTheLatencyOfAPortThatIsMadeAnew)
{
    pw_filter* const filter = client.locked([&] {
        return pw_filter_new(
            client.core(), "mic",
            newProperties({{PW_KEY_NODE_NAME, "mic"}, {PW_KEY_MEDIA_CLASS, "Audio/Source"}}));
    });
    void* port = nullptr;
    for (const uint32_t frames : {480U, 960U}) {
        client.locked([&] {
            std::array<uint8_t, 256> room{};
            spa_pod_builder builder = SPA_POD_BUILDER_INIT(room.data(), room.size());
            spa_latency_info latency = SPA_LATENCY_INFO(SPA_DIRECTION_OUTPUT);
            latency.min_rate = latency.max_rate = frames;
            const spa_pod* params[] = {spa_latency_build(&builder, SPA_PARAM_Latency, &latency)};
            if (port)
                pw_filter_remove_port(port);
            else
                pw_filter_connect(filter, PW_FILTER_FLAG_NONE, nullptr, 0);
            // The server gives the new port the old one's id.
            port = pw_filter_add_port(filter, PW_DIRECTION_OUTPUT, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 8,
                                      newProperties({{PW_KEY_FORMAT_DSP, "32 bit float mono audio"}}), params,
                                      1);
        });
        EXPECT_TRUE(becomes(waitForDevice(*hal, "mic"), kAudioDevicePropertyLatency, frames, input));
    }
    client.locked([&] { pw_filter_destroy(filter); });
}

TEST_F(PipeWireDevices, followsAndSetsTheRoutesOfACard)
{
    FakeCard headset(server.remote(), {.name = "headset", .microphone = true});
    FakeCard card(server.remote(), {});
    const AudioObjectID whole = waitForDevice(*hal, headset.deviceName());
    const AudioObjectID device = waitForDevice(*hal, card.sinkName());
    EXPECT_EQ(text(whole, kAudioObjectPropertyName), "Fake Card");
    EXPECT_EQ(channelsOf(*hal, whole, input), 2U) << "a sink and a source of one card are one device";
    EXPECT_EQ(channelsOf(*hal, whole, output), 2U);
    EXPECT_EQ(sourceOf(whole, input), "Microphone");
    EXPECT_EQ(readShownDevices(*hal).size(), 2U);

    const auto listed = at(kAudioDevicePropertyDataSources, output);
    const auto sources = [&] { return readList<uint32_t>(*hal, device, listed); };
    EXPECT_EQ(sources().size(), 1U) << "nothing is plugged into the headphones' socket";
    EXPECT_EQ(sourceOf(device), "Speakers");
    const auto streams = readList<AudioObjectID>(*hal, device, at(kAudioDevicePropertyStreams, output));
    EXPECT_EQ(read<uint32_t>(streams.at(0), kAudioStreamPropertyTerminalType), CXFourCharCode("spkr"));
    card.change([](FakeCard::State& state) { state.headphonesPlugged = true; });
    ASSERT_TRUE(eventually([&] { return sources().size() == 2; }));
    const auto speakers = read<uint32_t>(device, kAudioDevicePropertyDataSource, output);
    card.change([](FakeCard::State& state) { state.activeRoutes[0] = FakeCard::Headphones; });
    EXPECT_TRUE(eventually([&] { return sourceOf(device) == "Headphones"; }));
    EXPECT_EQ(sourceName(device, *speakers), "Speakers");
    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyDataSource, output), *speakers), 0);
    EXPECT_TRUE(card.waitUntil(
        [](const FakeCard::State& state) { return state.activeRoutes[0] == FakeCard::Speakers; }));
    EXPECT_EQ(sourceOf(device), "Speakers");

    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyVolumeScalar, output), 0.5F), 0);
    EXPECT_TRUE(card.waitUntil([](const FakeCard::State& state) {
        return state.amplitudes[FakeCard::Speakers][1] == 0.125F;
    })) << "a device with routes takes its volume there";
    card.change([](FakeCard::State& state) { state.muted[FakeCard::Speakers] = true; });
    EXPECT_TRUE(becomes(device, kAudioDevicePropertyMute, 1U, output));
    card.change([](FakeCard::State& state) {
        state.amplitudes[FakeCard::Headphones][0] = state.amplitudes[FakeCard::Headphones][1] = 0.001F;
        state.activeRoutes[0] = FakeCard::Headphones;
    });
    EXPECT_TRUE(volumeBecomes(device, 0.1F)) << "each route has a volume of its own";
}

TEST_F(PipeWireDevices, listsAndRunsWhatIsStrange)
{
    const std::string longName(65536, 'x');
    const struct {
        const char* why;
        std::string description, name, portMode;
        uint32_t channels;
    } rows[] = {
        {"no name", "", "", "dsp", 2},
        {"no UTF-8", "\xFF\xFE z", "\xEF\xBF\xBD\xEF\xBF\xBD z", "dsp", 2},
        {"the last code point, and a surrogate", "\xF4\x8F\xBF\xBF\xED\xA0\x80",
         "\xF4\x8F\xBF\xBF\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD", "dsp", 2},
        {"long", longName, longName, "dsp", 2},
        {"no channels", "e", "e", "none", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        const NodeProperties properties{{"node.description", row.description},
                                        {"adapter.auto-port-config", "{ mode = " + row.portMode + " }"}};
        const AudioObjectID device = plug({.name = row.why, .properties = properties});
        ASSERT_NE(device, kAudioObjectUnknown);
        EXPECT_TRUE(text(device, kAudioObjectPropertyName) == row.name);
        EXPECT_TRUE(eventually([&] { return channelsOf(*hal, device, output) == row.channels; }));
        CycleWitness witness;
        const RunningProc proc(*hal, device, eachCycle([&](const IOCycle&) { ++witness.cycles; }));
        EXPECT_TRUE(witness.waitForMore());
    }
    EXPECT_NE(plug({.name = std::string(60000, 'y')}), kAudioObjectUnknown);
}

TEST_F(PipeWireDevices, makesAHiddenInputOfWhatASinkPlays)
{
    const AudioObjectID speakers =
        plug({.name = "speakers", .channelCount = 6, .properties = {{"node.description", "Speakers"}}});
    FakeCard headset(server.remote(), {.name = "headset", .microphone = true});
    const AudioObjectID monitor = waitForDevice(*hal, "speakers.monitor");
    const AudioObjectID ofCard = waitForDevice(*hal, headset.deviceName() + ".monitor");
    EXPECT_EQ(text(monitor, kAudioObjectPropertyName), "Monitor of Speakers");
    EXPECT_EQ(text(ofCard, kAudioObjectPropertyName), "Monitor of Fake Card");
    EXPECT_EQ(read<uint32_t>(monitor, kAudioDevicePropertyIsHidden), 1U);
    EXPECT_EQ(channelsOf(*hal, monitor, input), 6U);
    EXPECT_EQ(channelsOf(*hal, monitor, output), 0U);
    EXPECT_EQ(read<uint32_t>(monitor, kAudioDevicePropertyClockDomain),
              read<uint32_t>(speakers, kAudioDevicePropertyClockDomain));
    for (const uint32_t selector :
         {kAudioDevicePropertyVolumeScalar, kAudioDevicePropertyMute, kAudioDevicePropertyDataSource})
        for (const AudioObjectID each : {monitor, ofCard})
            EXPECT_EQ(read<uint32_t>(each, selector, input), std::nullopt) << selector;
    const auto defaultInput = at(kAudioHardwarePropertyDefaultInputDevice);
    EXPECT_NE(writeValue(*hal, kAudioObjectSystemObject, defaultInput, monitor), 0);
    client.unplug("speakers");
    EXPECT_TRUE(eventually([&] { return deviceWithUID(*hal, "speakers.monitor") == kAudioObjectUnknown; }));
}

TEST_F(PipeWireDevices, choosesTheDefaultDevicesWithoutASessionManager)
{
    const AudioObjectID one = plug({.name = "one"});
    plug({.name = "two"});
    EXPECT_EQ(writeValue(*hal, kAudioObjectSystemObject, at(defaultOutput), one), 0);
    EXPECT_EQ(read<AudioObjectID>(kAudioObjectSystemObject, defaultOutput), one);
    client.setMetadata("default", "default.audio.sink", "{ name = two }");
    EXPECT_TRUE(defaultBecomes(defaultOutput, "two"));
    EXPECT_TRUE(defaultBecomes(kAudioHardwarePropertyDefaultSystemOutputDevice, "two"));
    // Without any source, a session manager makes a sink the default source.
    client.setMetadata("default", "default.audio.source", R"({ "name": "two" })");
    client.setMetadata("default", "default.audio.sink", R"({ "name": "one" })");
    EXPECT_TRUE(defaultBecomes(defaultOutput, "one"));
    EXPECT_EQ(read<AudioObjectID>(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultInputDevice),
              kAudioObjectUnknown);

    // A second object of the same name, which is empty, comes and goes.
    const NodeProperties named{{PW_KEY_METADATA_NAME, "default"}};
    const auto count = [&] { return client.idsOf(PW_TYPE_INTERFACE_Metadata, named).size(); };
    {
        TestClient second(server.remote());
        const ExportedMetadata metadata(second);
        EXPECT_TRUE(eventually([&] { return count() == 2; }));
        plug({.name = "three"}); // then it has been read, too
        second.locked([&] { metadata.destroy(); });
    }
    ASSERT_TRUE(eventually([&] { return count() == 1; }));
    client.setMetadata("default", "default.audio.sink", R"({ "name": "two" })");
    EXPECT_TRUE(defaultBecomes(defaultOutput, "two"));
}

TEST_F(PipeWireDevices, useOnlyClockSettingsThatCanBe)
{
    const AudioObjectID device = plug({.name = "sink"});
    for (const auto& [text, frames] : {std::pair("1024", 1024.0), {"0", 2048.0}, {"2000000000", 65536.0}}) {
        client.setMetadata("settings", "clock.max-quantum", text);
        EXPECT_TRUE(eventually([&, frames = frames] {
            const auto range = read<AudioValueRange>(device, kAudioDevicePropertyBufferFrameSizeRange);
            return range && range->maximum == frames;
        })) << text;
    }
}

class PipeWireDefaults : public PipeWireDevices {
protected:
    PipeWireDefaults() : PipeWireDevices(PrivateServer::Options{.sessionManager = true}) {}
};

TEST_F(PipeWireDefaults, areTheSessionManagersToSettle)
{
    plug({.name = "first", .properties = {{"priority.session", "1000"}}});
    const AudioObjectID second = plug({.name = "second", .properties = {{"priority.session", "500"}}});
    plug({.name = "mic", .mediaClass = "Audio/Source", .properties = {{"priority.session", "1000"}}});
    EXPECT_TRUE(defaultBecomes(defaultOutput, "first"));
    EXPECT_TRUE(defaultBecomes(kAudioHardwarePropertyDefaultInputDevice, "mic"));
    EXPECT_EQ(writeValue(*hal, kAudioObjectSystemObject, at(defaultOutput), second), 0);
    EXPECT_TRUE(defaultBecomes(defaultOutput, "second"));
    client.unplug("second");
    EXPECT_TRUE(defaultBecomes(defaultOutput, "first"));
}

// During the removal of devices, reads and listeners find each device either unchanged or absent.
TEST_F(PipeWireDevices, goAllAtOnceWithoutAFalseValue)
{
    constexpr int count = 400;
    std::atomic<size_t> falseValues{0}, announced{0};
    const HALListener listener{nullptr, nullptr,
                               [&](uint32_t, const AudioObjectPropertyAddress*) { ++announced; }, nullptr};
    const auto channels = [&](AudioObjectID device) {
        return channelsOf(*hal, device, output) + channelsOf(*hal, device, input);
    };
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < count; ++i)
            client.plug({.name = "sink" + std::to_string(i)});
        ASSERT_TRUE(eventually([&] { // with their monitors
            return std::ranges::count(readDevices(*hal), 2U, channels) == 2 * count;
        }));
        const auto begin = std::chrono::steady_clock::now();
        const auto other = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
        readDevices(*other);
        // Otherwise the machine is too busy: the server takes longer than the first read waits.
        if (std::chrono::steady_clock::now() - begin < std::chrono::seconds(2)) {
            EXPECT_EQ(readShownDevices(*other).size(), size_t{count}) << "all of them at the first read";
        }
        for (const AudioObjectID device : readDevices(*hal))
            for (const auto& address : {at(kAudioObjectPropertyName), at(kAudioDevicePropertyTransportType),
                                        at(kAudioDevicePropertyStreams, output)})
                EXPECT_EQ(hal->addListener(device, address, listener), 0);
        const std::jthread reader([&](const std::stop_token& end) {
            while (!end.stop_requested())
                for (const AudioObjectID device : readDevices(*hal)) {
                    const bool hasNoChannels = channels(device) == 0;
                    falseValues += readText(*hal, device, at(kAudioObjectPropertyName)) == "" ||
                                   (hasNoChannels && readText(*hal, device, at(uidSelector)).has_value());
                }
        });
        client.unplugAll();
        EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty(); }));
    }
    EXPECT_EQ(falseValues + announced, 0U);
}

} // namespace
