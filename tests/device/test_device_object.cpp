#include "CXFourCharCode.h"
#include "CXJSON.h"
#include "CapturedLog.h"
#include "DXRDebugLog.h"
#include "DXRDeviceControl.h"
#include "DXRDeviceOverrides.h"
#include "Eventually.h"
#include "GlobalQueue.h"
#include "SerialQueue.h"
#include "SimulatedComputer.h"

#include <cmath>
#include <functional>

namespace {

constexpr HALDirection outputs = HALDirection::Output;

/// Counts the updates of devices.
class Keeper final : public DXRDeviceKeeper {
public:
    static CXRef<Keeper> init() { return CXRef<Keeper>::adopt(new Keeper); }
    dxr::WorkQueue& updateQueue() const override { return *_queue; }
    void deviceWasUpdated(const CXRef<DXRDevice>& /*device*/) override { ++_updates; }
    int updatesSinceLast()
    {
        _queue->sync([] {});
        return std::exchange(_updates, 0);
    }

private:
    const CXRef<dxr::SerialQueue> _queue = dxr::SerialQueue::initWithLabel("keeper");
    int _updates = 0;
};

class DXRDeviceTest : public SimulatedComputer {
protected:
    CXRef<DXRDevice> deviceFor(const SimulatedDeviceBuilder& builder, bool isInput = false)
    {
        const AudioObjectID id = hal.plug(builder);
        return DXRDeviceControl::initWithDeviceID(id, DXRDeviceReference::initWithDeviceID(id, isInput),
                                                  keeper);
    }
    bool becomesTrue(const std::function<bool()>& condition)
    {
        return eventually(condition, [this] { settleHardware(); });
    }
    const CXRef<Keeper> keeper = Keeper::init();
};

TEST_F(DXRDeviceTest, keepsWhatTheHardwareReportsAndItsArchiveToo)
{
    SimulatedDeviceBuilder deviceBuilder = aDevice().uid("box").name("Box").manufacturer("Maker");
    deviceBuilder.modelUID("model").transport(kAudioDeviceTransportTypeUSB).outputs(2).outputs(4);
    deviceBuilder.sampleRate(48000).stereoChannels(outputs, 3, 4).source(outputs, 1, "line");
    deviceBuilder.source(outputs, 2, "Phones").source(outputs, 3, "Äther").volume(outputs, 0.5F);
    deviceBuilder.mute(outputs, true);
    const auto device = deviceFor(deviceBuilder);
    ASSERT_TRUE(device);
    EXPECT_EQ(device->channelCount(), 6U);
    EXPECT_EQ(device->nameWithSource(), "Box: line");
    EXPECT_EQ(device->manufacturer() + device->model() + device->transportType(), "Makermodelusb ");
    EXPECT_EQ(device->preferredStereoChannels(), (std::vector<uint32_t>{3, 4}));
    EXPECT_EQ(device->availableSources(), (std::vector<std::string>{"line", "Phones", "Äther"}));
    EXPECT_TRUE(device->hasMute() && device->isMuted() && device->hasVolume());
    EXPECT_EQ(device->volume(), 0.5);
    EXPECT_FALSE(device->isInput());
    EXPECT_TRUE(device->isDefault());
    EXPECT_EQ(device->description().substr(device->description().find(", ")),
              ", connected (" + std::to_string(device->deviceID()) + "), output, box (Box, line)>");
    const CXPlist archive = device->archive();
    EXPECT_EQ(archive.size(), 16U);
    const auto restored = DXRDeviceControl::initWithArchive(CXPlist::parse(archive.dump()));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->archive(), archive);
    EXPECT_FALSE(restored->isConnected());
    EXPECT_EQ(restored->displayNameWithSource(), "⚠️ Box: line");

    EXPECT_EQ(deviceFor(aDevice().uid("deaf").outputs(2), input), nullptr);
    const AudioObjectID id = hal.deviceID("box");
    EXPECT_EQ(DXRDeviceControl::initWithDeviceID(id, nullptr), nullptr);
    EXPECT_EQ(DXRDeviceControl::initWithDeviceID(id, DXRDeviceReference::initWithDeviceID(id, std::nullopt)),
              nullptr);
    EXPECT_EQ(DXRDeviceControl::initWithDeviceID(0, device->reference()), nullptr);
}

TEST_F(DXRDeviceTest, fallsBackWhereTheHardwareReportsNothing)
{
    const auto device = deviceFor(aDevice().uid("plain").name("").transport(0).outputs(1));
    EXPECT_EQ(device->transportType(), "");
    EXPECT_EQ(device->preferredStereoChannels(), (std::vector<uint32_t>{1, 1}));
    EXPECT_EQ(device->nameWithSource(), "");
    EXPECT_FALSE(device->hasVolume() || device->hasMute() || device->isMuted());
    EXPECT_EQ(device->volume(), 1.0);
    EXPECT_FALSE(device->setVolume(0.5) || device->setMuted(true) || device->setSource("Line"));
    const auto sameName =
        deviceFor(aDevice().uid("s").name("Speakers").outputs(2).source(outputs, 1, "Speakers"));
    EXPECT_EQ(sameName->nameWithSource(), "Speakers");
    const auto sourceOnly = deviceFor(aDevice().uid("l").name("").outputs(2).source(outputs, 1, "Line In"));
    EXPECT_EQ(sourceOnly->nameWithSource(), "Line In");
    const auto averaged = deviceFor(aDevice().uid("a").outputs(2).channelVolumes(outputs, {0.2F, 0.6F}));
    EXPECT_NEAR(averaged->volume(), 0.4, 1e-6);
    const auto oneChannel = deviceFor(aDevice().uid("o").outputs(2).channelVolumes(outputs, {0.2F, NAN}));
    EXPECT_NEAR(oneChannel->volume(), 0.2, 1e-6);
}

TEST_F(DXRDeviceTest, listsUsualRatesOfARange)
{
    const struct {
        const char* why;
        SimulatedDeviceBuilder builder;
        std::vector<double> rates;
    } rows[] = {
        {"a wide range",
         aDevice().sampleRates({}).sampleRateRange(8000, 192000),
         {44100, 48000, 88200, 96000}},
        {"a narrow range", aDevice().sampleRates({}).sampleRateRange(32000, 48000), {44100, 48000}},
        {"repeated and unordered",
         aDevice().sampleRates({96000, 11025, 48000}).sampleRateRange(48000, 50000),
         {11025, 48000, 96000}},
        {"none: the current one", aDevice().sampleRates({}).sampleRate(32000), {32000}},
        {"none that is usual", aDevice().sampleRates({}).sampleRateRange(1, 2).sampleRate(32000), {32000}},
    };
    for (const auto& row : rows) {
        SimulatedDeviceBuilder builder = row.builder;
        const auto device = deviceFor(builder.uid(row.why).outputs(2));
        EXPECT_EQ(device->availableSampleRates(), row.rates) << row.why;
    }
}

TEST_F(DXRDeviceTest, writesSupportedValues)
{
    SimulatedDeviceBuilder deviceBuilder = aDevice().uid("box").outputs(2).sampleRates({44100, 48000});
    deviceBuilder.mute(outputs, false).volume(outputs, 1.0F).source(outputs, 1, "Line");
    deviceBuilder.source(outputs, 2, "Phones");
    const auto device = deviceFor(deviceBuilder);
    EXPECT_FALSE(device->setSampleRate(96000));
    EXPECT_TRUE(device->setSampleRate(44100));
    EXPECT_FALSE(device->setSource("Nothing"));
    EXPECT_FALSE(device->setSource(std::nullopt));
    EXPECT_TRUE(device->setSource("Phones"));
    EXPECT_TRUE(device->setMuted(true));
    settleHardware();
    EXPECT_EQ(device->sampleRate(), 44100.0);
    EXPECT_EQ(device->source(), "Phones");
    EXPECT_TRUE(device->isMuted());
    for (const auto& [wanted, written] :
         {std::pair(0.0005, 0.0F), std::pair(0.9995, 1.0F), std::pair(0.5, 0.5F), std::pair(-1.0, 0.0F),
          std::pair(7.0, 1.0F)}) {
        EXPECT_TRUE(device->setVolume(wanted));
        EXPECT_EQ(readValue<float>(hal, device->deviceID(),
                                   at(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput)),
                  written);
    }
    EXPECT_FALSE(device->setVolume(NAN));
    hal.failWrites(kAudioHardwareUnspecifiedError);
    EXPECT_FALSE(device->setVolume(0.3));
    EXPECT_EQ(device->volume(), 1.0);
    hal.failWrites(0);
    DXRDeviceControl(*device).disconnect();
    EXPECT_FALSE(device->setVolume(0.3) || device->setMuted(false) || device->setSource("Line") ||
                 device->setSampleRate(48000));
}

TEST_F(DXRDeviceTest, doesNotJumpBackWhileASliderMoves)
{
    const auto device = deviceFor(aDevice().uid("box").outputs(2).volume(outputs, 0.0F));
    std::vector<double> seen;
    const auto observation = device->kvo()->observe("volume", [&](const std::string&, DXRKVOChange change) {
        if (change == DXRKVOChange::Did)
            seen.push_back(device->volume());
    });
    for (int i = 1; i <= 100; ++i) {
        EXPECT_TRUE(device->setVolume(i / 200.0));
        if (i % 7 == 0) // the hardware reports a change in between
            hal.reconfigure("box",
                            [&](auto& box) { box.volume(outputs, static_cast<float>(i - 5) / 200.0F); });
        settleHardware();
        EXPECT_EQ(device->volume(), i / 200.0);
    }
    EXPECT_TRUE(std::ranges::is_sorted(seen));
    EXPECT_EQ(seen.back(), 0.5);
    hal.reconfigure("box", [](auto& box) { box.volume(outputs, 0.25F); });
    EXPECT_TRUE(becomesTrue([&] { return device->volume() == 0.25; })) << "the hardware's last volume counts";
}

// Writes many volumes that are no exact floats: the written volume is kept, without reads or updates.
TEST_F(DXRDeviceTest, doesNotReadItsOwnVolume)
{
    const auto device = deviceFor(aDevice().uid("box").outputs(2).volume(outputs, 0.0F));
    settleHardware();
    keeper->updatesSinceLast();
    int reads = 0;
    std::function<void()> countOne = [&] {
        ++reads;
        hal.beforeRead(kAudioObjectPropertySelectorWildcard, 1, countOne);
    };
    countOne();
    for (int i = 1; i <= 100; ++i) {
        EXPECT_TRUE(device->setVolume(i / 123.0));
        settleHardware();
    }
    int announced = 0;
    const auto observation = device->kvo()->observe("volume", [&](auto&, auto) { ++announced; });
    sleepForMilliseconds(300); // until the volume has settled
    dxr::GlobalQueue::highPriority().sync([] {});
    settleHardware();
    EXPECT_EQ(device->volume(), 100 / 123.0);
    EXPECT_EQ(announced, 0);
    EXPECT_EQ(keeper->updatesSinceLast(), 0);
    EXPECT_LT(reads, 100);
    EXPECT_TRUE(device->setVolume(0.5));
    hal.reconfigure("box", [](auto& box) { box.volume(outputs, 0.25F); });
    EXPECT_TRUE(becomesTrue([&] { return keeper->updatesSinceLast() > 0; })) << "another volume is reported";
    hal.beforeRead(kAudioObjectPropertySelectorWildcard, 1, {});
}

TEST_F(DXRDeviceTest, refreshesOnlyOnObservableChanges)
{
    SimulatedDeviceBuilder deviceBuilder = aDevice().uid("box").outputs(2).sampleRates({44100, 48000});
    deviceBuilder.mute(outputs, false).volume(outputs, 0.5F);
    const auto device = deviceFor(deviceBuilder);
    settleHardware();
    keeper->updatesSinceLast();
    const struct {
        const char* why;
        std::function<void(SimulatedDeviceBuilder&)> change;
        bool isReported;
    } rows[] = {
        {"name", [](auto& box) { box.name("New"); }, true},
        {"manufacturer", [](auto& box) { box.manufacturer("New"); }, true},
        {"stereo pair", [](auto& box) { box.stereoChannels(outputs, 2, 1); }, true},
        {"channels", [](auto& box) { box.outputs(2); }, true},
        {"source", [](auto& box) { box.source(outputs, 1, "Line"); }, true},
        {"rate", [](auto& box) { box.sampleRate(44100); }, true},
        {"mute", [](auto& box) { box.mute(outputs, true); }, true},
        {"volume", [](auto& box) { box.volume(outputs, 0.25F); }, true},
        {"model", [](auto& box) { box.modelUID("New"); }, false},
        {"buffer", [](auto& box) { box.bufferFrameSize(256); }, false},
        {"clock", [](auto& box) { box.clockDomain(7); }, false},
    };
    for (const auto& row : rows) {
        hal.reconfigure("box", row.change);
        settleHardware();
        EXPECT_EQ(keeper->updatesSinceLast() > 0, row.isReported) << row.why;
    }
    EXPECT_EQ(device->name() + device->manufacturer() + device->source(), "NewNewLine");
    EXPECT_EQ(device->preferredStereoChannels(), (std::vector<uint32_t>{2, 1}));
    EXPECT_EQ(device->channelCount(), 4U);
    EXPECT_EQ(device->sampleRate(), 44100.0);
    EXPECT_TRUE(device->isMuted());
    EXPECT_EQ(device->volume(), 0.25);
}

TEST_F(DXRDeviceTest, keepsItsValuesWhenTheHardwareGoes)
{
    const auto device =
        deviceFor(aDevice().uid("mic").name("USB Mic").inputs(1).volume(HALDirection::Input, 0.5F), input);
    EXPECT_TRUE(DXRDeviceControl(*device).updateDisplayName("USB Mic 2"));
    EXPECT_FALSE(DXRDeviceControl(*device).updateDisplayName("USB Mic 2"));
    EXPECT_EQ(device->displayName(), "USB Mic 2");
    std::vector<std::string> keys;
    const auto observations = device->kvo()->observe(device->kvo()->observableKeys(),
                                                     [&](const std::string& key, DXRKVOChange change) {
                                                         if (change == DXRKVOChange::Did)
                                                             keys.push_back(key);
                                                     });
    DXRDeviceControl(*device).disconnect();
    EXPECT_EQ(keys, (std::vector<std::string>{"displayName", "displayNameWithSource", "isConnected",
                                              "isDefault", "deviceID"}));
    EXPECT_EQ(device->displayName(), "⚠️ USB Mic");
    EXPECT_EQ(device->volume(), 0.5);
    hal.reconfigure("mic", [](auto& mic) { mic.name("Unheard"); });
    settleHardware();
    EXPECT_EQ(device->name(), "USB Mic");
    DXRDeviceControl(*device).connect(hal.deviceID("mic"), device->reference());
    EXPECT_EQ(device->name(), "Unheard");
    EXPECT_EQ(device->displayName(), "USB Mic 2");
    hal.reconfigure("mic", [](auto& mic) { mic.name("Heard"); });
    settleHardware();
    EXPECT_EQ(device->name(), "Heard");
    // If the device disappears while it is read, nothing that was read is stored.
    DXRDeviceControl(*device).disconnect();
    hal.reconfigure("mic", [](auto& mic) { mic.name("Half"); });
    const AudioObjectID id = hal.deviceID("mic");
    hal.beforeRead(kAudioDevicePropertyTransportType, 1, [this] { hal.unplug("mic"); });
    DXRDeviceControl(*device).connect(id, device->reference());
    EXPECT_EQ(device->name(), "Heard");
}

TEST_F(DXRDeviceTest, appliesAndAnnouncesOverrides)
{
    const auto device = deviceFor(aDevice().uid("box").outputs(2).volume(outputs, 0.5F).mute(outputs, true));
    settleHardware(); // otherwise a refresh would announce the overridden values
    std::vector<std::string> heard;
    const auto observations = device->kvo()->observe(
        DXRKVOHelper::Keys{"volume", "isMuted"}, [&](const std::string& key, DXRKVOChange change) {
            heard.push_back(key + (change == DXRKVOChange::Will ? " was " : " is ") +
                            (key == "volume"     ? std::to_string(device->volume())
                             : device->isMuted() ? "on"
                                                 : "off"));
        });
    device->setOverride(false, "hv");
    EXPECT_FALSE(device->hasVolume());
    EXPECT_EQ(std::exchange(heard, {}),
              (std::vector<std::string>{"volume was 0.500000", "volume is 1.000000"}));
    // As if another application, or another object of this one, had set an override.
    DXRDeviceOverrides::initWithDeviceReference(device->reference())->setObject(false, "hm");
    EXPECT_TRUE(becomesTrue([&] { return heard.size() > 1; }));
    EXPECT_EQ(heard, (std::vector<std::string>{"isMuted was on", "isMuted is off"}));
    EXPECT_FALSE(device->hasMute());
    device->setOverride(nullptr, "hv");
    EXPECT_EQ(device->overrideForKey("hv"), nullptr);
    EXPECT_EQ(device->volume(), 0.5);
}

TEST_F(DXRDeviceTest, reportsNothingBeforeItIsComplete)
{
    const AudioObjectID id = hal.plug(aDevice().uid("short").outputs(2));
    settleHardware(); // otherwise the notifications of the plug may read first
    const CXRef<DXRDeviceReference> reference = DXRDeviceReference::initWithDeviceID(id, output);
    hal.beforeRead(kAudioObjectPropertyManufacturer, 1, [&] { // listeners exist, nothing was read yet
        hal.reconfigure("short", [](auto& it) { it.name("Changed"); });
        settleHardware();
        hal.unplug("short");
        settleHardware();
    });
    EXPECT_EQ(DXRDeviceControl::initWithDeviceID(id, reference, keeper), nullptr);
    EXPECT_EQ(keeper->updatesSinceLast(), 0);
}

TEST_F(DXRDeviceTest, prefersTheChannelsOfItsReferenceToThoseOfItsArchive)
{
    const auto monitor = deviceFor(aDevice()
                                       .uid("AppleGFXHDAEngineOutputDP:1:2:{1}")
                                       .transport(kAudioDeviceTransportTypeDisplayPort)
                                       .outputs(8));
    ASSERT_TRUE(monitor->reference()->isGeneric());
    CXPlist archive = monitor->archive();
    archive["c"] = 2;
    const auto device = DXRDeviceControl::initWithArchive(archive, keeper);
    const DXRDeviceControl control(*device);
    control.connect(monitor->deviceID(), monitor->reference());
    EXPECT_EQ(device->channelCount(), 8U);
    EXPECT_TRUE(control.confirmGenericChannelCounts());
    hal.reconfigure(monitor->deviceUID(), [](auto& it) { it.noStreams(outputs).outputs(6); });
    settleHardware();
    EXPECT_EQ(device->channelCount(), 8U) << "another count is another device";
    EXPECT_FALSE(control.confirmGenericChannelCounts());
}

TEST_F(DXRDeviceTest, ignoresRatesThatAreNotFinite)
{
    const auto device =
        deviceFor(aDevice().uid("box").outputs(2).sampleRates({48000, INFINITY}).sampleRate(NAN));
    int announced = 0;
    const auto observation = device->kvo()->observe("sampleRate", [&](auto&, auto) { ++announced; });
    hal.reconfigure("box", [](auto& it) { it.name("New"); });
    settleHardware();
    EXPECT_EQ(announced, 0);
    EXPECT_EQ(device->sampleRate(), 44100.0);
    const auto restored = DXRDeviceControl::initWithArchive(CXPlist::parse(device->archive().dump()));
    EXPECT_EQ(restored->availableSampleRates(), (std::vector<double>{48000}));
}

// Debugging is enabled once per process, so this runs in death tests.
TEST_F(DXRDeviceTest, isLoggedWithItsArchiveWhenDebugging)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto logged = [this] {
        CXRegisterDebugCenter([] { return true; });
        const CapturedLog log;
        const auto device = deviceFor(aDevice().uid("box").outputs(2));
        const std::string archive = CXJSONWithPlist(device->archive());
        const auto restored = DXRDeviceControl::initWithArchive(device->archive());
        const auto line = [&](const auto& it) {
            return "[DXR] Added " + it->description() + ": " + archive + "\n";
        };
        std::exit(log.lines() == std::vector{line(device), line(restored)} ? 0 : 1);
    };
    EXPECT_EXIT(logged(), testing::ExitedWithCode(0), "");
}

TEST(DXRDeviceArchive, isReadAsFarAsItIsValid)
{
    const CXPlist minimal = {{"vn", 1}, {"ref", R"({"uid":"x","i":true})"}, {"c", 2}, {"hv", true}};
    const auto with = [&](const char* key, const CXPlist& value) {
        CXPlist archive = minimal;
        archive[key] = value;
        return DXRDeviceControl::initWithArchive(archive);
    };
    const std::pair<const char*, CXPlist> refused[] = {
        {"vn", 2}, {"vn", "1"}, {"vn", nullptr}, {"ref", "{\"uid\":\"x\"}"}, {"ref", "x"},   {"ref", 3},
        {"c", 0},  {"c", -1},   {"c", "2"},      {"c", 4294967295U},         {"c", nullptr}, {"c", 0.5},
    };
    for (const auto& [key, value] : refused)
        EXPECT_EQ(with(key, value), nullptr) << key << " " << value.dump();
    EXPECT_EQ(DXRDeviceControl::initWithArchive(nullptr), nullptr);
    EXPECT_EQ(DXRDeviceControl::initWithArchive(CXPlist::array()), nullptr);

    const auto plain = DXRDeviceControl::initWithArchive(minimal);
    ASSERT_TRUE(plain);
    EXPECT_TRUE(plain->isInput());
    const std::pair<const char*, std::vector<CXPlist>> ignored[] = {
        {"sc", {{0, 2}, {1, 3}, {1}, {1, 2, 2}, "12", {1, "2"}}},
        {"r", {0, -1, INFINITY, NAN, "1"}},
        {"v", {-0.1, 1.1, NAN, "1"}},
        {"as", {{"Line", 2}}},
        {"n", {7}},
        {"ar", {{44100, "1"}, {44100, -1}, {NAN, 44100}}},
    };
    for (const auto& [key, values] : ignored) {
        for (const CXPlist& value : values) {
            const auto device = with(key, value);
            SCOPED_TRACE(key + value.dump());
            EXPECT_EQ(device->preferredStereoChannels(), (std::vector<uint32_t>{1, 2}));
            EXPECT_EQ(device->sampleRate(), 44100.0);
            EXPECT_EQ(device->volume(), 1.0);
            EXPECT_TRUE(device->availableSampleRates().empty() && device->availableSources().empty());
            EXPECT_EQ(device->name(), "");
        }
    }
    EXPECT_EQ(with("sc", {2, 1})->preferredStereoChannels(), (std::vector<uint32_t>{2, 1}));
    EXPECT_EQ(with("c", 1)->preferredStereoChannels(), (std::vector<uint32_t>{1, 1}));
    EXPECT_EQ(with("ar", {44100, 8000.5})->availableSampleRates(), (std::vector<double>{44100, 8000.5}));
    EXPECT_EQ(with("r", true)->sampleRate(), 1.0) << "a boolean is a number";
    EXPECT_EQ(with("v", 0)->volume(), 0.0);
    EXPECT_TRUE(with("hm", 1)->hasMute());
}

} // namespace
