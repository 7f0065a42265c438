#include "CXJSON.h"
#include "CapturedLog.h"
#include "DXRDebugLog.h"
#include "DXRDeviceControl.h"
#include "DXRDeviceOverrides.h"
#include "DXRPropertyListener.h"
#include "Eventually.h"
#include "GlobalQueue.h"
#include "NoNewThreads.h"
#include "SerialQueue.h"
#include "SimulatedComputer.h"

#include <cmath>
#include <future>

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
    /// Waits for the notifications of the plug, which would otherwise cause readings and updates later.
    CXRef<DXRDevice> deviceFor(const SimulatedDeviceBuilder& builder, bool isInput = false)
    {
        const AudioObjectID id = hal.plug(builder);
        const auto reference = DXRDeviceReference::initWithDeviceID(id, isInput);
        const auto device = DXRDeviceControl::initWithDeviceID(id, reference, keeper);
        settleHardware();
        keeper->updatesSinceLast();
        return device;
    }
    bool becomesTrue(const std::function<bool()>& condition)
    {
        return eventually(condition, [this] { settleHardware(); });
    }
    const CXRef<Keeper> keeper = Keeper::init();
};

TEST_F(DXRDeviceTest, keepsWhatTheHardwareReportsAndItsArchiveToo)
{
    SimulatedDeviceBuilder box = aDevice().uid("box").name("Box").manufacturer("Maker");
    box.modelUID("model").transport(kAudioDeviceTransportTypeUSB).outputs(2).outputs(4);
    box.sampleRate(48000).stereoChannels(outputs, 3, 4).source(outputs, 1, "line");
    box.source(outputs, 2, "Phones").source(outputs, 3, "Äther").volume(outputs, 0.5F).mute(outputs, true);
    const auto device = deviceFor(box);
    ASSERT_TRUE(device);
    const CXPlist archive = device->archive();
    EXPECT_EQ(archive, CXPlist::parse(R"({"ar":[44100,48000,88200,96000,176400,192000],"c":6,"hm":true,)"
                                      R"("as":["line","Phones","Äther"],"s":"line","hv":true,"v":0.5,)"
                                      R"("m":"Maker","md":"model","mt":true,"n":"Box","r":48000,"t":"usb ",)"
                                      R"("ref":"{\"i\":false,\"uid\":\"box\"}","sc":[3,4],"vn":1})"));
    EXPECT_TRUE(device->isDefault());
    EXPECT_EQ(device->description().substr(device->description().find(", ")),
              ", connected (" + std::to_string(device->deviceID()) + "), output, box (Box, line)>");
    const auto restored = DXRDeviceControl::initWithArchive(CXPlist::parse(archive.dump()));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->archive(), archive);
    EXPECT_EQ(restored->displayNameWithSource(), "⚠️ Box: line");

    const AudioObjectID id = device->deviceID();
    EXPECT_EQ(deviceFor(aDevice().uid("deaf").outputs(2), input), nullptr);
    const auto undirected = DXRDeviceReference::initWithDeviceID(id, std::nullopt);
    EXPECT_FALSE(DXRDeviceControl::initWithDeviceID(id, undirected)->isInput());
}

TEST_F(DXRDeviceTest, fallsBackWhereTheHardwareReportsNothing)
{
    const auto device = deviceFor(aDevice().uid("plain").name("").transport(0).outputs(1));
    EXPECT_EQ(device->transportType() + device->nameWithSource(), "");
    EXPECT_EQ(device->preferredStereoChannels(), (std::vector<uint32_t>{1, 1}));
    EXPECT_FALSE(device->hasVolume() || device->hasMute() || device->isMuted());
    EXPECT_FALSE(device->setVolume(0.5) || device->setMuted(true) || device->setSource("Line"));
    hal.reconfigure("plain", [](auto& it) { it.mute(outputs, false); });
    settleHardware();
    EXPECT_TRUE(device->hasMute() && !device->isMuted()) << "a control at the fallback value";
    hal.reconfigure("plain", [](auto& it) { it.volume(outputs, 1.0F); });
    settleHardware();
    EXPECT_TRUE(device->hasVolume());
    const auto plain = [](const char* name) { return aDevice().name(name).outputs(2); };
    const struct {
        const char* uid;
        SimulatedDeviceBuilder builder;
        const char* nameWithSource;
        double volume;
    } rows[] = {
        {"same name", plain("Speakers").source(outputs, 1, "Speakers"), "Speakers", 1},
        {"source only", plain("").source(outputs, 1, "Line In"), "Line In", 1},
        {"averaged", plain("A").channelVolumes(outputs, {0.2F, 0.6F}), "A", 0.4},
        {"one channel", plain("B").channelVolumes(outputs, {0.2F, NAN}), "B", 0.2},
    };
    for (auto [uid, builder, nameWithSource, volume] : rows) {
        const auto one = deviceFor(builder.uid(uid));
        EXPECT_EQ(one->nameWithSource(), nameWithSource);
        EXPECT_NEAR(one->volume(), volume, 1e-6) << uid;
    }
}

TEST_F(DXRDeviceTest, listsFiniteRatesAndTheUsualOnesOfARange)
{
    const auto with = [](std::initializer_list<double> rates) {
        return aDevice().outputs(2).sampleRate(32000).sampleRates(rates);
    };
    const std::tuple<const char*, SimulatedDeviceBuilder, std::vector<double>> rows[] = {
        {"wide", with({}).sampleRateRange(8000, 192000), {44100, 48000, 88200, 96000}},
        {"narrow", with({}).sampleRateRange(32000, 48000), {44100, 48000}},
        {"mixed", with({96000, 11025, 48000}).sampleRateRange(48000, 50000), {11025, 48000, 96000}},
        {"none: the current one", with({}), {32000}},
        {"none that is usual", with({}).sampleRateRange(1, 2), {32000}},
        {"one that is not finite", with({INFINITY, 48000}), {48000}},
        {"none that is finite, nor the current one", with({INFINITY}).sampleRate(NAN), {44100}},
    };
    for (auto [why, builder, rates] : rows)
        EXPECT_EQ(deviceFor(builder.uid(why))->availableSampleRates(), rates) << why;
}

TEST_F(DXRDeviceTest, writesSupportedValues)
{
    SimulatedDeviceBuilder box = aDevice().uid("box").outputs(2).sampleRates({44100, 48000});
    box.mute(outputs, false).volume(outputs, 1.0F).source(outputs, 1, "Line").source(outputs, 2, "Phones");
    const auto device = deviceFor(box);
    EXPECT_FALSE(device->setSampleRate(96000) || device->setSource("Nothing") ||
                 device->setSource(std::nullopt) || device->setVolume(NAN));
    EXPECT_TRUE(device->setSampleRate(44100) && device->setSource("Phones") && device->setMuted(true));
    settleHardware();
    EXPECT_EQ(device->sampleRate(), 44100.0);
    EXPECT_EQ(device->source(), "Phones");
    EXPECT_TRUE(device->isMuted());
    const auto volume = at(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput);
    const std::pair<double, float> written[] = {{0.0005, 0}, {0.9995, 1}, {0.5, 0.5F}, {-1, 0}, {7, 1}};
    for (const auto& [wanted, expected] : written) {
        EXPECT_TRUE(device->setVolume(wanted));
        EXPECT_EQ(readValue<float>(hal, device->deviceID(), volume), expected) << wanted;
    }
    hal.failWrites(kAudioHardwareUnspecifiedError);
    EXPECT_FALSE(device->setVolume(0.3));
    EXPECT_EQ(device->volume(), 1.0);
    hal.failWrites(0);
    DXRDeviceControl(*device).disconnect();
    EXPECT_FALSE(device->setVolume(0.3) || device->setMuted(false) || device->setSource("Line") ||
                 device->setSampleRate(48000));
}

// Volumes that are no exact floats, at first alone and then among changes that the hardware reports.
TEST_F(DXRDeviceTest, keepsTheVolumeOfASlider)
{
    const auto device = deviceFor(aDevice().uid("box").outputs(2).volume(outputs, 0.0F));
    const auto setVolumeAndSettle = [&](double volume) {
        EXPECT_TRUE(device->setVolume(volume));
        settleHardware();
        EXPECT_EQ(device->volume(), volume);
    };
    for (int i = 1; i <= 100; ++i)
        setVolumeAndSettle(i / 223.0);
    std::vector<double> announced;
    const auto observation =
        device->kvo()->observe("volume", [&](auto&, auto) { announced.push_back(device->volume()); });
    sleepForMilliseconds(300); // until the volume has settled
    dxr::GlobalQueue::highPriority().sync([] {});
    settleHardware();
    EXPECT_EQ(device->volume(), 100 / 223.0);
    EXPECT_TRUE(announced.empty());
    EXPECT_EQ(keeper->updatesSinceLast(), 0);
    for (int i = 101; i <= 200; ++i) {
        if (i % 7 == 0)
            hal.reconfigure("box", [=](auto& it) { it.volume(outputs, static_cast<float>(i - 5) / 223.0F); });
        setVolumeAndSettle(i / 223.0);
    }
    EXPECT_TRUE(std::ranges::is_sorted(announced)) << "it does not jump back";
    EXPECT_EQ(announced.back(), 200 / 223.0);
    keeper->updatesSinceLast();
    hal.reconfigure("box", [](auto& it) { it.volume(outputs, 0.25F); });
    EXPECT_TRUE(becomesTrue([&] { return device->volume() == 0.25; })) << "the hardware's last volume counts";
    EXPECT_TRUE(becomesTrue([&] { return keeper->updatesSinceLast() > 0; }));
}

TEST_F(DXRDeviceTest, followsTheVolumeAfterAWriteWithoutAThread)
{
    const auto device = deviceFor(aDevice().uid("box").outputs(2).volume(outputs, 0.5F));
    settleHardware();
    double announced = 0.5;
    const auto observation =
        device->kvo()->observe("volume", [&](auto&, auto) { announced = device->volume(); });
    {
        const NoNewThreads limit;
        EXPECT_TRUE(device->setVolume(0.3));
        EXPECT_EQ(announced, 0.3);
    }
    hal.reconfigure("box", [](auto& box) { box.volume(outputs, 0.875F); });
    EXPECT_TRUE(becomesTrue([&] { return announced == 0.875; }));
}

// The reading after a volume has settled may see a change before the change is notified.
TEST_F(DXRDeviceTest, reportsAChangeThatAnotherReadingHasSeenFirst)
{
    const auto device = deviceFor(aDevice().uid("box").outputs(2).volume(outputs, 0.5F).mute(outputs, false));
    std::promise<void> isBusy, isOver;
    const AudioObjectPropertyAddress frameSize = at(kAudioDevicePropertyBufferFrameSize);
    const auto keepBusy = [&](const auto&, auto) {
        isBusy.set_value();
        isOver.get_future().wait();
    };
    const auto listener =
        DXRPropertyListener::initWithObjectID(device->deviceID(), &frameSize, nullptr, keeper, keepBusy);
    listener->start();
    hal.reconfigure("box", [](auto& it) { it.bufferFrameSize(256); });
    isBusy.get_future().wait(); // nothing is notified from here on
    EXPECT_TRUE(device->setVolume(0.25));
    hal.reconfigure("box", [](auto& it) { it.mute(outputs, true); });
    EXPECT_TRUE(eventually([&] { return device->isMuted(); }));
    isOver.set_value();
    EXPECT_TRUE(becomesTrue([&] { return keeper->updatesSinceLast() > 0; }));
}

TEST_F(DXRDeviceTest, refreshesOnlyOnObservableChanges)
{
    SimulatedDeviceBuilder box = aDevice().uid("box").outputs(2).sampleRates({44100, 48000});
    const auto device = deviceFor(box.mute(outputs, false).volume(outputs, 0.5F));
    const struct {
        const char* why;
        std::function<void(SimulatedDeviceBuilder&)> change;
        const char* key; ///< in the archive; null: no update
        CXPlist value;
    } rows[] = {
        {"name", [](auto& it) { it.name("New"); }, "n", "New"},
        {"manufacturer", [](auto& it) { it.manufacturer("New"); }, "m", "New"},
        {"stereo pair", [](auto& it) { it.stereoChannels(outputs, 2, 1); }, "sc", {2, 1}},
        {"channels", [](auto& it) { it.outputs(2); }, "c", 4},
        {"source", [](auto& it) { it.source(outputs, 1, "Line"); }, "s", "Line"},
        {"rate", [](auto& it) { it.sampleRate(44100); }, "r", 44100},
        {"mute", [](auto& it) { it.mute(outputs, true); }, "mt", true},
        {"volume", [](auto& it) { it.volume(outputs, 0.25F); }, "v", 0.25},
        {"model", [](auto& it) { it.modelUID("New"); }, nullptr, nullptr},
        {"buffer", [](auto& it) { it.bufferFrameSize(256); }, nullptr, nullptr},
        {"clock", [](auto& it) { it.clockDomain(7); }, nullptr, nullptr},
    };
    for (const auto& row : rows) {
        hal.reconfigure("box", row.change);
        settleHardware();
        EXPECT_EQ(keeper->updatesSinceLast() > 0, row.key != nullptr) << row.why;
        EXPECT_TRUE(!row.key || device->archive()[row.key] == row.value) << row.why;
    }
}

TEST_F(DXRDeviceTest, keepsItsValuesWhenTheHardwareGoes)
{
    const auto device =
        deviceFor(aDevice().uid("mic").name("USB Mic").inputs(1).volume(HALDirection::Input, 0.5F), input);
    const DXRDeviceControl control(*device);
    const AudioObjectID id = device->deviceID();
    const auto rename = [&](const char* name) {
        hal.reconfigure("mic", [=](auto& mic) { mic.name(name); });
        settleHardware();
        return device->name();
    };
    EXPECT_TRUE(control.updateDisplayName("USB Mic 2"));
    EXPECT_FALSE(control.updateDisplayName("USB Mic 2"));
    std::vector<std::string> keys;
    const auto observations = device->kvo()->observe(
        device->kvo()->observableKeys(), [&](const std::string& key, DXRKVOChange) { keys.push_back(key); });
    control.disconnect();
    std::vector<std::string> expected;
    for (const char* key : {"displayName", "displayNameWithSource", "isConnected", "isDefault", "deviceID"})
        expected.insert(expected.end(), 2, key);
    EXPECT_EQ(keys, expected);
    EXPECT_EQ(device->displayName(), "⚠️ USB Mic");
    EXPECT_EQ(device->volume(), 0.5);
    EXPECT_EQ(rename("Unheard"), "USB Mic");
    control.connect(id, device->reference());
    EXPECT_EQ(device->name(), "Unheard");
    EXPECT_EQ(device->displayName(), "USB Mic 2");
    EXPECT_EQ(rename("Heard"), "Heard");
    // A later reading fails while this one is in progress.
    control.disconnect();
    hal.beforeRead(kAudioDevicePropertyTransportType, 1, [&] {
        hal.failReads(kAudioDevicePropertyStreamConfiguration, 1, 100, kAudioHardwareUnspecifiedError);
        rename("Later");
        hal.failReads(kAudioDevicePropertyStreamConfiguration, 1, 0, 0);
    });
    control.connect(id, device->reference());
    EXPECT_TRUE(control.refreshIfIncomplete());
    // If the device disappears while it is read, nothing that was read is stored.
    control.disconnect();
    rename("Half");
    hal.beforeRead(kAudioDevicePropertyTransportType, 1, [this] { hal.unplug("mic"); });
    control.connect(id, device->reference());
    EXPECT_EQ(device->name(), "Later");
}

TEST_F(DXRDeviceTest, appliesAndAnnouncesOverrides)
{
    const auto device = deviceFor(aDevice().uid("box").outputs(2).volume(outputs, 0.5F).mute(outputs, true));
    using Values = std::vector<std::pair<double, bool>>;
    Values heard; // volume and mute before and after each change
    const auto observations =
        device->kvo()->observe(DXRKVOHelper::Keys{"volume", "isMuted"}, [&](const std::string&, auto) {
            heard.emplace_back(device->volume(), device->isMuted());
        });
    device->setOverride(false, "hv");
    EXPECT_FALSE(device->hasVolume());
    EXPECT_EQ(std::exchange(heard, {}), (Values{{0.5, true}, {1, true}}));
    // As if another application, or another object of this one, had set an override.
    DXRDeviceOverrides::initWithDeviceReference(device->reference())->setObject(false, "hm");
    EXPECT_TRUE(becomesTrue([&] { return heard.size() > 1; }));
    EXPECT_EQ(heard, (Values{{1, true}, {1, false}}));
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
    SimulatedDeviceBuilder display = aDevice().uid("AppleGFXHDAEngineOutputDP:1:2:{1}").outputs(8);
    const auto monitor = deviceFor(display.transport(kAudioDeviceTransportTypeDisplayPort));
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
    const auto fresh = DXRDeviceControl::initWithDeviceID(device->deviceID(), device->reference(), keeper);
    EXPECT_EQ(fresh->channelCount(), 6U) << "before the first reading there is none to keep";
    EXPECT_FALSE(control.confirmGenericChannelCounts());
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
    using Rows = std::vector<std::pair<const char*, std::vector<CXPlist>>>;
    const Rows refused{
        {"vn", {2, "1", nullptr}},
        {"ref", {"{\"uid\":\"x\"}", "x", 3}},
        {"c", {0, -1, "2", 4294967295U, nullptr, 0.5}},
    };
    for (const auto& [key, values] : refused)
        for (const CXPlist& value : values)
            EXPECT_EQ(with(key, value), nullptr) << key << " " << value.dump();
    EXPECT_EQ(DXRDeviceControl::initWithArchive(CXPlist::array()), nullptr);

    const CXPlist asRead = with("v", 1.0)->archive();
    const Rows ignored{
        {"sc", {{0, 2}, {1, 3}, {1}, {1, 2, 2}, "12", {1, "2"}}},
        {"r", {0, -1, INFINITY, NAN, "1"}},
        {"v", {-0.1, 1.1, NAN, "1"}},
        {"as", {{"Line", 2}}},
        {"n", {7}},
        {"ar", {{44100, "1"}, {44100, -1}, {NAN, 44100}}},
    };
    for (const auto& [key, values] : ignored)
        for (const CXPlist& value : values)
            EXPECT_EQ(with(key, value)->archive(), asRead) << key << value.dump();
    const CXPlist read{{"sc", {2, 1}}, {"ar", {44100, 8000.5}}, {"r", 96000}, {"v", 0}, {"hm", true}};
    for (const auto& [key, value] : read.items())
        EXPECT_EQ(with(key.c_str(), value)->archive()[key], value);
    EXPECT_EQ(with("c", 1)->preferredStereoChannels(), (std::vector<uint32_t>{1, 1}));
    EXPECT_EQ(with("r", true)->sampleRate(), 1.0) << "a boolean is a number";
}

} // namespace
