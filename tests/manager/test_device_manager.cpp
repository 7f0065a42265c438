#include "CXException.h"
#include "ManagedComputer.h"
#include "NoNewThreads.h"
#include "SerialQueue.h"

#include <atomic>
#include <future>

namespace {

class DXRDeviceManagerTest : public ManagedComputer {
protected:
    /// The device of an archive with this reference, which is escaped for JSON.
    CXRef<DXRDevice> fromArchive(const std::string& reference, int version = 1,
                                 const std::string& prefix = "DXRDevice:")
    {
        const std::string text = prefix + R"({"vn":)" + std::to_string(version) + R"(,"ref":")" + reference +
                                 R"(","c":2,"n":"Far"})";
        const auto bytes = std::as_bytes(std::span(text));
        return manager.deviceFromArchive({bytes.begin(), bytes.end()});
    }
};

TEST_F(DXRDeviceManagerTest, keepsDeviceObjectsAcrossAReplug)
{
    std::vector<size_t> counts; // size of the list before and after each change
    const auto observation = manager.kvo()->observe(
        "connectedDevices", [&](auto&, auto) { counts.push_back(manager.connectedDevices().size()); });
    const AudioObjectID firstID = plug(headset());
    const CXRef<DXRDevice> mic = device("headset", input), phones = device("headset", output);
    ASSERT_TRUE(mic && phones);
    const Devices none, both{mic, phones};
    const auto expectChanges = [&](const Devices& connected, const Devices& disconnected) {
        const Changes heard = changesSinceLast();
        EXPECT_EQ(heard.connected, connected);
        EXPECT_EQ(heard.disconnected, disconnected);
        EXPECT_EQ(heard.updated, both);
    };
    expectChanges(both, none);
    EXPECT_EQ(manager.connectedDevices(), both);
    EXPECT_EQ(manager.counterpartForDevice(mic), phones);

    unplug("headset");
    expectChanges(none, both);
    EXPECT_FALSE(phones->isConnected());
    EXPECT_EQ(device("headset", output), phones) << "absent, but known";
    EXPECT_EQ(manager.counterpartForDevice(mic), phones);

    const AudioObjectID secondID = plug(headset());
    EXPECT_NE(firstID, secondID);
    expectChanges(both, none);
    EXPECT_EQ(phones->deviceID(), secondID);
    EXPECT_EQ(manager.deviceWithDeviceID(secondID, output), phones);
    EXPECT_EQ(manager.deviceWithDeviceID(firstID, output), nullptr);
    EXPECT_EQ(counts, (std::vector<size_t>{0, 2, 2, 0, 0, 2}));
}

TEST_F(DXRDeviceManagerTest, recognizesAMonitorOnAnotherPort)
{
    std::vector<CXRef<DXRDevice>> devices;
    for (const char* port : {"1:1", "2:2", "3:3"}) {
        plug(monitor(port));
        devices.push_back(device(monitorUID(port), output));
    }
    for (uint64_t nth = 1; nth <= 12; ++nth) { // the hardware reads of the look-up
        hal.failReads(kAudioObjectPropertySelectorWildcard, nth, 1, kAudioHardwareUnspecifiedError);
        EXPECT_EQ(device(monitorUID("2:2"), output), devices[1]) << nth;
    }
    hal.failReads(kAudioObjectPropertySelectorWildcard, 1, 0, 0);
    const std::string text = devices[0]->reference()->string();
    std::string elsewhere = text;
    elsewhere.replace(elsewhere.find("1:1"), 3, "9:9");
    EXPECT_EQ(manager.devicesWithReference(text), std::vector{devices[0]});
    EXPECT_EQ(manager.devicesWithReference(elsewhere), devices);
    unplug(monitorUID("1:1"));
    std::ranges::rotate(devices, devices.begin() + 1);
    EXPECT_EQ(manager.devicesWithReference(text), devices) << "the absent one last";
    EXPECT_EQ(manager.deviceWithReference(text), devices[0]);
    for (const char* none : {R"({"uid":"AppleGFXHDAEngineOutputDP:2:2:{1234}"})", "{}", "headset"}) {
        EXPECT_TRUE(manager.devicesWithReference(none).empty()) << none;
        EXPECT_EQ(manager.deviceWithReference(none), nullptr) << none;
    }
    EXPECT_EQ(manager.deviceWithReference(std::nullopt), nullptr);

    unplug(monitorUID("3:3"));
    plug(monitor("3:3"));
    EXPECT_TRUE(devices[1]->isConnected()) << "on its own port, before one that was absent earlier";
    plug(monitor("7:8"));
    EXPECT_EQ(device(monitorUID("7:8"), output), devices[2]) << "the absent one";
    EXPECT_EQ(devices[2]->deviceUID(), monitorUID("7:8"));
    EXPECT_EQ(manager.deviceWithReference(text), devices[0]);
    hal.reconfigure(monitorUID("7:8"), [](auto& it) { it.modelUID("other"); });
    changesSinceLast();
    manager.setNeedsDevicesUpdate(true);
    settle();
    EXPECT_EQ(changesSinceLast().updated, Devices{devices[2]}) << "it has another reference";
    reconfigure(monitorUID("7:8"), [](auto& it) { it.outputs(6); });
    const CXRef<DXRDevice> other = device(monitorUID("7:8"), output);
    ASSERT_TRUE(other);
    EXPECT_NE(other, devices[2]) << "another count of channels is another device";
    EXPECT_EQ(other->channelCount(), 8U);
    EXPECT_FALSE(devices[2]->isConnected());
}

TEST_F(DXRDeviceManagerTest, numbersDevicesOfOneNameAsLongAsThereAreSeveral)
{
    const auto card = [](const std::string& uid, const char* name = "USB Audio") {
        return aDevice().uid(uid).name(name).outputs(2).source(HALDirection::Output, 1, "Line");
    };
    using Names = std::vector<std::string>;
    const auto names = [this](const std::string& uids) {
        Names all;
        for (const char uid : uids)
            all.push_back(device(std::string(1, uid), output)->displayName());
        return all;
    };
    plug(card("a"));
    plug(card("b"));
    plug(aDevice().uid("c").name("USB Audio").inputs(2));
    const CXRef<DXRDevice> a = device("a", output), b = device("b", output);
    EXPECT_EQ(names("ab"), (Names{"USB Audio 1", "USB Audio 2"})) << "the device with the lower ID first";
    EXPECT_EQ(b->displayNameWithSource(), "USB Audio: Line 2");
    EXPECT_EQ(device("c", input)->displayName(), "USB Audio") << "the other direction is not counted";
    reconfigure("b", [](auto& it) {
        it.source(HALDirection::Output, 2, "Phones").currentSource(HALDirection::Output, 2);
    });
    EXPECT_EQ(b->displayNameWithSource(), "USB Audio: Phones");
    EXPECT_EQ(a->displayNameWithSource(), "USB Audio: Line");
    EXPECT_EQ(b->displayName(), "USB Audio 2");
    changesSinceLast();
    unplug("a");
    EXPECT_EQ(b->displayName(), "USB Audio");
    EXPECT_EQ(changesSinceLast().updated, (Devices{a, b}));
    plug(card("a")); // now with a higher ID
    EXPECT_EQ(names("ba"), (Names{"USB Audio 1", "USB Audio 2"}));
    plug(card("d", "USB Audio 2")); // already ends in a number
    EXPECT_EQ(names("bad"), (Names{"USB Audio 1", "USB Audio 3", "USB Audio 2"}));
}

TEST_F(DXRDeviceManagerTest, reportsDefaultDevices)
{
    plug(headset());
    plug(aDevice().uid("speakers").outputs(2));
    const CXRef<DXRDevice> phones = device("headset", output), speakers = device("speakers", output);
    EXPECT_EQ(manager.defaultOutputDevice(), phones);
    EXPECT_EQ(manager.defaultInputDevice(), device("headset", input));
    changesSinceLast();
    std::vector<CXRef<DXRDevice>> defaults; // before and after each change
    std::vector<bool> isDefault;
    const auto first = manager.kvo()->observe(
        "defaultOutputDevice", [&](auto&, auto) { defaults.push_back(manager.defaultOutputDevice()); });
    const auto second = speakers->kvo()->observe(
        "isDefault", [&](auto&, auto) { isDefault.push_back(speakers->isDefault()); });
    hal.setDefault(HALDirection::Output, "speakers");
    settle();
    EXPECT_EQ(changesSinceLast().updated, (Devices{phones, speakers}));
    EXPECT_EQ(defaults, (std::vector{phones, speakers}));
    EXPECT_EQ(isDefault, (std::vector{false, true}));
    EXPECT_EQ(manager.soundEffectsDevice(), speakers);
    hal.setDefaultSystemOutput("headset");
    settle();
    EXPECT_EQ(changesSinceLast().updated, (Devices{phones, speakers}));
    EXPECT_EQ(manager.soundEffectsDevice(), phones);
    EXPECT_EQ(manager.defaultOutputDevice(), speakers);

    {
        const NoNewThreads limit; // then reads that fail are not repeated before the next change
        hal.failReads(kAudioHardwarePropertyDefaultInputDevice, 1, 100, kAudioHardwareUnspecifiedError);
        plug(aDevice().uid("mic").inputs(1));
    }
    changesSinceLast(); // a change that cannot be read is reported when it can
    hal.failReads(kAudioHardwarePropertyDefaultInputDevice, 1, 2, kAudioHardwareUnspecifiedError);
    hal.setDefault(HALDirection::Input, "mic");
    EXPECT_TRUE(becomesTrue([&] { return !updates.empty(); }));
    EXPECT_EQ(changesSinceLast().updated, (Devices{device("headset", input), device("mic", input)}));
}

// First its device stays, then it disappears too; at last the default changes and changes back before the
// manager reads it.
TEST_F(DXRDeviceManagerTest, announcesADefaultThatIsLostAndComesBack)
{
    plug(aDevice().uid("a").outputs(2));
    const CXRef<DXRDevice> a = device("a", output);
    CXRef<DXRDevice> announcedDefault = manager.defaultOutputDevice();
    std::map<CXRef<DXRDevice>, bool> announced;
    std::vector observations{manager.kvo()->observe(
        "defaultOutputDevice", [&](auto&, auto) { announcedDefault = manager.defaultOutputDevice(); })};
    int noInputs = 0;
    const auto noInput = manager.kvo()->observe("defaultInputDevice", [&](auto&, auto) { ++noInputs; });
    const auto observe = [&](const CXRef<DXRDevice>& it) {
        announced[it] = it->isDefault();
        observations.push_back(
            it->kvo()->observe("isDefault", [&, it](auto&, auto) { announced[it] = it->isDefault(); }));
    };
    observe(a);
    const auto setDefault = [&](const char* uid) { hal.setDefault(HALDirection::Output, uid); };
    for (const bool isReplugged : {false, true}) {
        setDefault("");
        if (isReplugged) {
            unplug("a");
            plug(aDevice().uid("a").outputs(2).canBeDefault(false));
        }
        settle();
        EXPECT_FALSE(announced[a] || announcedDefault || a->isDefault()) << isReplugged;
        changesSinceLast();
        setDefault("a");
        settle();
        EXPECT_TRUE(announced[a] && announcedDefault == a && a->isDefault()) << isReplugged;
        EXPECT_EQ(changesSinceLast().updated, Devices{a}) << isReplugged;
    }

    plug(aDevice().uid("b").outputs(2));
    observe(device("b", output));
    std::promise<void> isOver;
    DXRDeviceManager::queue().async([&] { isOver.get_future().wait(); });
    setDefault("b");
    for (const char* uid : {"a", "b"}) // their refreshes announce that b is the default
        hal.reconfigure(uid, [](auto& it) { it.name("New"); });
    settleHardware();
    setDefault("a");
    isOver.set_value();
    settle();
    for (const auto& [device, isDefault] : announced)
        EXPECT_EQ(isDefault, device == a);
    EXPECT_EQ(noInputs, 0) << "unasked";
    manager.kvo()->updateAllValues();
    manager.kvo()->updateValueForKey("defaultInputDevice");
    EXPECT_EQ(noInputs, 4) << "will and did, twice";
}

// Reads fail while an unrelated device appears, and then one of the reads for a change's announcements.
TEST_F(DXRDeviceManagerTest, announcesNoDefaultThatItCouldNotRead)
{
    const auto failReads = [&](uint64_t first, uint64_t count) {
        hal.failReads(kAudioHardwarePropertyDefaultOutputDevice, first, count,
                      kAudioHardwareUnspecifiedError);
    };
    for (const char* uid : {"a", "b"})
        plug(aDevice().uid(uid).outputs(2));
    const CXRef<DXRDevice> a = device("a", output);
    bool isDefault = a->isDefault();
    int others = 0;
    const std::array observations{
        a->kvo()->observe("isDefault",
                          [&](auto&, DXRKVOChange change) { // reads no hardware: it might fail
                              if (change == DXRKVOChange::Will)
                                  isDefault = !a->isDefault();
                          }),
        manager.kvo()->observe("defaultOutputDevice", [&](auto&, auto) { ++others; })};
    failReads(1, 1'000'000);
    plug(aDevice().uid("mic").inputs(1));
    EXPECT_TRUE(isDefault && others == 0);
    for (int i = 0; i < 100; ++i) // the main queue is not run meanwhile
        manager.kvo()->updateValueForKey("defaultOutputDevice");
    sleepForMilliseconds(100);
    EXPECT_LT(dxr::MainQueue::shared().drain(), 50U) << "one repeat waits";
    failReads(1, 0);
    for (uint64_t i = 0; i < 8; ++i) {
        others = 0;
        hal.setDefault(HALDirection::Output, i % 2 == 0 ? "b" : "a");
        hal.settle();
        DXRDeviceManager::queue().sync([&] { failReads(1 + i / 2, 1); }); // the manager's own read is over
        EXPECT_TRUE(becomesTrue([&] { return isDefault == (i % 2 == 1) && others == 2; })) << i;
    }
}

TEST_F(DXRDeviceManagerTest, listsAHiddenDeviceOnceItIsAskedFor)
{
    const SimulatedDeviceBuilder builder = aDevice().uid("hidden").hidden().outputs(2);
    const AudioObjectID hidden = plug(builder), other = plug(aDevice().uid("other").hidden().outputs(2));
    plug(aDevice().uid("plain").outputs(2));
    EXPECT_EQ(manager.connectedDevices().size(), 1U);
    EXPECT_EQ(manager.deviceWithReference(R"({"uid":"hidden","i":false})"), nullptr) << "does not adopt";
    for (const char* uid : {"plain", "nobody"})
        EXPECT_FALSE(manager.adoptHiddenDevice(uid));
    using enum DXRDeviceManager::HiddenDevices;
    DXRDeviceManager::queue().sync([&] { // adopting waits for the queue and is refused on it
        EXPECT_THROW(manager.adoptHiddenDevice("hidden"), CXException);
        EXPECT_THROW((void)manager.deviceWithDeviceID(hidden, output), CXException);
        EXPECT_EQ(manager.deviceWithDeviceUID("hidden", output, Leave), nullptr);
        EXPECT_EQ(manager.deviceWithDeviceID(hidden, output, Leave), nullptr);
        EXPECT_TRUE(manager.deviceWithDeviceUID("plain", output)) << "there is nothing to wait for";
        EXPECT_EQ(manager.deviceWithDeviceUID("nobody", output), nullptr);
    });
    const CXRef<DXRDevice> adopted = device("hidden", output);
    ASSERT_TRUE(adopted);
    EXPECT_TRUE(changesSinceLast().connected.contains(adopted));
    EXPECT_TRUE(manager.deviceWithDeviceID(other, output));
    DXRDeviceManager::queue().sync(
        [&] { EXPECT_EQ(manager.deviceWithDeviceUID("hidden", input), nullptr) << "adopted, no inputs"; });
    unplug("hidden");
    plug(builder);
    EXPECT_TRUE(adopted->isConnected());

    const CXRef<DXRDevice> plain = device("plain", output);
    for (const bool isHidden : {true, false}) { // not adopted: listed only while not hidden
        reconfigure("plain", [&](auto& it) { it.hidden(isHidden); });
        EXPECT_EQ(plain->isConnected(), !isHidden);
    }
    // While the manager cannot read which devices are hidden, known devices stay and new ones are not listed.
    changesSinceLast();
    hal.failReads(kAudioDevicePropertyIsHidden, 1, 1'000'000, kAudioHardwareUnspecifiedError);
    plug(aDevice().uid("shy").hidden().outputs(2));
    plug(aDevice().uid("new").outputs(2));
    EXPECT_TRUE(updates.empty());
    hal.failReads(kAudioDevicePropertyIsHidden, 1, 0, 0);
    EXPECT_TRUE(becomesTrue([&] { return !updates.empty(); }));
    EXPECT_EQ(changesSinceLast().connected, Devices{device("new", output)});
}

TEST_F(DXRDeviceManagerTest, callsObserversAfterTheUpdateOfAnAdoption)
{
    plug(aDevice().uid("shy").hidden().outputs(2));
    const CXRef<DXRDevice> shy = fromArchive(R"({\"uid\":\"shy\",\"i\":false})");
    int calls = 0;
    const auto observation = shy->kvo()->observe("isConnected", [&](const std::string&, DXRKVOChange change) {
        if (change == DXRKVOChange::Will)
            return;
        ++calls;
        EXPECT_EQ(device("shy", output), shy);
        EXPECT_TRUE(manager.connectedDevices().contains(shy));
        auto other = std::async(std::launch::async, [&] { return manager.connectedDevices().size(); });
        EXPECT_EQ(other.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    });
    // On the main thread, where the update runs directly because the queue is idle.
    EXPECT_TRUE(manager.adoptHiddenDevice("shy"));
    settle();
    EXPECT_EQ(calls, 1);
}

TEST_F(DXRDeviceManagerTest, restoresDevicesFromArchives)
{
    plug(headset());
    const CXRef<DXRDevice> phones = device("headset", output);
    EXPECT_EQ(manager.deviceFromArchive(DXRDeviceManager::archiveForDevice(phones).value()), phones);
    EXPECT_EQ(DXRDeviceManager::archiveForDevice(nullptr), std::nullopt);

    const char* const reference = R"({\"uid\":\"far\",\"i\":false})";
    const CXRef<DXRDevice> far = fromArchive(reference);
    ASSERT_TRUE(far);
    EXPECT_EQ(fromArchive(reference), far);
    EXPECT_FALSE(manager.connectedDevices().contains(far));
    plug(aDevice().uid("far").name("Near").outputs(2));
    EXPECT_EQ(device("far", output), far);
    EXPECT_EQ(far->displayName(), "Near");

    const CXRef<DXRDevice> farMic = fromArchive(R"({\"uid\":\"far\",\"i\":true})");
    ASSERT_TRUE(farMic) << "the direction that a connected device does not have";
    EXPECT_FALSE(farMic->isConnected());
    reconfigure("far", [](auto& it) { it.inputs(1); });
    EXPECT_TRUE(farMic->isConnected());
    EXPECT_EQ(device("far", input), farMic);
    EXPECT_EQ(manager.counterpartForDevice(far), farMic);
    changesSinceLast();
    reconfigure("far", [](auto& it) { it.noStreams(HALDirection::Input); });
    EXPECT_EQ(changesSinceLast().disconnected, Devices{farMic});
    EXPECT_EQ(manager.counterpartForDevice(far), nullptr);

    EXPECT_EQ(fromArchive(reference, 2), nullptr) << "another version";
    for (const char* prefix : {"", "DXRdevice:", "DXRDevice:{"})
        EXPECT_EQ(fromArchive(reference, 1, prefix), nullptr) << prefix;
}

TEST_F(DXRDeviceManagerTest, callsEveryNotifierOnceOnItsQueue)
{
    const CXRef<dxr::SerialQueue> queue = dxr::SerialQueue::initWithLabel("own");
    size_t here = 0, there = 0;
    using Notifier = DXRDeviceManager::NotifierBlock;
    const Notifier onManagersQueue = [&](const auto&...) {
        here += DXRDeviceManager::queue().isCurrent() ? 1 : 100;
    };
    const Notifier onOwnQueue = [&](const auto&...) { there += queue->isCurrent() ? 1 : 100; };
    manager.addDeviceNotifier(nullptr, onManagersQueue);
    manager.addDeviceNotifier(nullptr, onManagersQueue); // the same notifier again
    manager.addDeviceNotifier(queue, onOwnQueue);
    manager.addDeviceNotifier(nullptr, {});
    plug(headset());
    queue->sync([] {});
    const size_t count = updates.size();
    EXPECT_GE(count, 1U);
    manager.removeDeviceNotifier(onManagersQueue);
    manager.removeDeviceNotifier(onOwnQueue);
    changesSinceLast();
    DXRDeviceManager::queue().sync([&] { // keeps the queue busy until all updates are requested
        for (int i = 0; i < 100; ++i)
            manager.deviceWasUpdated(device("headset", output));
    });
    settle();
    manager.setNeedsDevicesUpdate(false);
    settle();
    ASSERT_EQ(updates.size(), 1U) << "many requests make one update";
    EXPECT_EQ(updates.front().updated, Devices{device("headset", output)});
    queue->sync([] {});
    EXPECT_TRUE(here == count && there == count) << here << ' ' << there;
}

TEST_F(DXRDeviceManagerTest, callsNoNotifierThatIsRemoved)
{
    using enum DXRDeviceManagerNotifier::WhenRunning;
    plug(headset());
    const CXRef<DXRDevice> phones = device("headset", output);
    std::jthread changes([&](const std::stop_token& isOver) {
        while (!isOver.stop_requested()) {
            manager.deviceWasUpdated(phones);
            DXRDeviceManager::queue().sync([] {});
        }
    });
    bool isCalled = true;
    for (int round = 0; isCalled && round < 500; ++round) {
        const CXRef<dxr::SerialQueue> queue =
            round % 2 == 0 ? dxr::SerialQueue::initWithLabel("own") : nullptr;
        auto isAlive = std::make_unique<std::atomic<bool>>(true); // freed after the removal
        std::atomic<int> calls{0};
        const DXRDeviceManager::NotifierBlock block = [&, alive = isAlive.get()](const auto&...) {
            ++calls;
            std::this_thread::yield();
            EXPECT_TRUE(*alive);
        };
        manager.addDeviceNotifier(queue, block);
        isCalled = eventually([&] { return calls > 0; }, std::this_thread::yield);
        EXPECT_TRUE(isCalled);
        manager.removeDeviceNotifier(block, Wait);
        *isAlive = false;
    }
    changes = {};

    // A notifier may be removed by one that is called before it, and by itself.
    int calls = 0;
    DXRDeviceManager::NotifierBlock remover;
    const DXRDeviceManager::NotifierBlock victim = [&](const auto&...) { calls += 100; };
    remover = [&](const auto&...) {
        ++calls;
        for (const auto& notifier : {victim, remover})
            manager.removeDeviceNotifier(notifier, Wait);
    };
    manager.addDeviceNotifier(nullptr, remover);
    manager.addDeviceNotifier(nullptr, victim);
    unplug("headset");
    EXPECT_EQ(calls, 1);
}

TEST(DXRDeviceManagerStart, worksWhileTheCallerHoldsTheLock)
{
    HALSetHardwareDriver(SimulatedHardware::init(SimulatedClock::Stepped));
    DXRDeviceManager::lock().execute([] {
        DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
        EXPECT_EQ(DXRDeviceManager::init().get(), &manager);
        EXPECT_TRUE(manager.connectedDevices().empty());
    });
}

// The queue has its thread already, the hardware has none.
TEST(DXRDeviceManagerStart, triesAgainWhenThreadsCanBeCreated)
{
    DXRDeviceManager::queue().sync([] {});
    {
        const NoNewThreads limit;
        try {
            DXRDeviceManager::sharedDeviceManager();
        } catch (const std::system_error&) { // unless an earlier test has started the hardware
        }
    }
    const CXRef<SimulatedHardware> hal = SimulatedHardware::init(SimulatedClock::Stepped);
    if (!HALSetHardwareDriver(hal))
        GTEST_SKIP() << "needs a process of its own";
    hal->plug(headset());
    EXPECT_TRUE(
        eventually([] { return !DXRDeviceManager::sharedDeviceManager().connectedDevices().empty(); }));
}

} // namespace
