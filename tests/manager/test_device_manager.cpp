#include "CXException.h"
#include "ManagedComputer.h"
#include "SerialQueue.h"

#include <atomic>
#include <future>
#include <thread>

namespace {

using Devices = DXRDeviceManager::Devices;
using DXRDeviceManagerTest = ManagedComputer;

std::vector<std::byte> bytesOf(std::string_view text)
{
    const auto bytes = std::as_bytes(std::span(text));
    return {bytes.begin(), bytes.end()};
}

SimulatedDeviceBuilder headset()
{
    return aDevice().uid("headset").name("Headset").inputs(1).outputs(2);
}

SimulatedDeviceBuilder hiddenDevice(const std::string& uid)
{
    return aDevice().uid(uid).hidden().outputs(2);
}

TEST_F(DXRDeviceManagerTest, keepsDeviceObjectsAcrossAReplug)
{
    std::vector<size_t> counts; // size of the list before and after each change
    const auto observation = manager.kvo()->observe(
        "connectedDevices", [&](auto&, auto) { counts.push_back(manager.connectedDevices().size()); });
    const AudioObjectID firstID = plug(headset());
    const CXRef<DXRDevice> mic = device("headset", input);
    const CXRef<DXRDevice> phones = device("headset", output);
    ASSERT_TRUE(mic && phones);
    Changes heard = changesSinceLast();
    EXPECT_EQ(heard.connected, (Devices{mic, phones}));
    EXPECT_EQ(heard.updated, (Devices{mic, phones}));
    EXPECT_EQ(manager.connectedDevices(), (Devices{mic, phones}));
    EXPECT_EQ(manager.counterpartForDevice(mic), phones);
    EXPECT_EQ(manager.counterpartForDevice(nullptr), nullptr);

    unplug("headset");
    heard = changesSinceLast();
    EXPECT_EQ(heard.disconnected, (Devices{mic, phones}));
    EXPECT_EQ(heard.updated, (Devices{mic, phones}));
    EXPECT_TRUE(heard.connected.empty());
    EXPECT_TRUE(manager.connectedDevices().empty());
    EXPECT_FALSE(phones->isConnected());
    EXPECT_EQ(phones->displayName(), "⚠️ Headset");
    EXPECT_EQ(device("headset", output), phones) << "absent, but known";
    EXPECT_EQ(manager.counterpartForDevice(mic), phones);

    const AudioObjectID secondID = plug(headset());
    EXPECT_NE(firstID, secondID);
    EXPECT_EQ(changesSinceLast().connected, (Devices{mic, phones}));
    EXPECT_EQ(phones->deviceID(), secondID);
    EXPECT_EQ(manager.deviceWithDeviceID(secondID, output), phones);
    EXPECT_EQ(manager.deviceWithDeviceID(firstID, output), nullptr);
    EXPECT_EQ(phones->displayName(), "Headset");
    EXPECT_EQ(counts, (std::vector<size_t>{0, 2, 2, 0, 0, 2}));
}

TEST_F(DXRDeviceManagerTest, recognizesAMonitorOnAnotherPort)
{
    plug(monitor("1:2"));
    const CXRef<DXRDevice> speakers = device(monitorUID("1:2"), output);
    const std::string stored = speakers->reference()->string();
    unplug(monitorUID("1:2"));
    plug(monitor("7:8"));
    EXPECT_EQ(device(monitorUID("7:8"), output), speakers);
    EXPECT_EQ(speakers->deviceUID(), monitorUID("7:8"));
    EXPECT_EQ(manager.deviceWithReference(stored), speakers);

    reconfigure(monitorUID("7:8"), [](auto& it) { it.outputs(6); });
    const CXRef<DXRDevice> other = device(monitorUID("7:8"), output);
    EXPECT_NE(other, speakers) << "another count of channels is another device";
    ASSERT_TRUE(other);
    EXPECT_EQ(other->channelCount(), 8U);
    EXPECT_FALSE(speakers->isConnected());
}

TEST_F(DXRDeviceManagerTest, returnsAllDevicesThatAReferenceMayMean)
{
    for (const char* port : {"1:1", "2:2", "3:3"})
        plug(monitor(port));
    const CXRef<DXRDevice> one = device(monitorUID("1:1"), output);
    const CXRef<DXRDevice> two = device(monitorUID("2:2"), output);
    const CXRef<DXRDevice> three = device(monitorUID("3:3"), output);
    using List = std::vector<CXRef<DXRDevice>>;
    const std::string text = one->reference()->string();
    EXPECT_EQ(manager.devicesWithReference(text), List{one});
    std::string elsewhere = text;
    elsewhere.replace(elsewhere.find("1:1"), 3, "9:9");
    EXPECT_EQ(manager.devicesWithReference(elsewhere), (List{one, two, three}));
    unplug(one->deviceUID());
    EXPECT_EQ(manager.devicesWithReference(text), (List{two, three, one})) << "as deviceWithReference()";
    EXPECT_EQ(manager.deviceWithReference(text), two);
    for (const char* none : {R"({"uid":"AppleGFXHDAEngineOutputDP:2:2:{1234}"})", "{}", "headset"}) {
        EXPECT_TRUE(manager.devicesWithReference(none).empty()) << none;
        EXPECT_EQ(manager.deviceWithReference(none), nullptr) << none;
    }
    EXPECT_EQ(manager.deviceWithReference(std::nullopt), nullptr);
    EXPECT_EQ(manager.deviceWithDeviceUID(std::nullopt, input), nullptr);
    EXPECT_EQ(manager.deviceWithDeviceUID("nobody", input), nullptr);
}

TEST_F(DXRDeviceManagerTest, numbersDevicesOfOneNameAsLongAsThereAreSeveral)
{
    const auto card = [](const std::string& uid) {
        return aDevice().uid(uid).name("USB Audio").outputs(2).source(HALDirection::Output, 1, "Line");
    };
    plug(card("a"));
    plug(card("b"));
    plug(aDevice().uid("c").name("USB Audio").inputs(2)); // the other direction is not counted
    const CXRef<DXRDevice> a = device("a", output);
    const CXRef<DXRDevice> b = device("b", output);
    EXPECT_EQ(a->displayName(), "USB Audio 1"); // the device with the lower ID
    EXPECT_EQ(b->displayName(), "USB Audio 2");
    EXPECT_EQ(b->displayNameWithSource(), "USB Audio: Line 2");
    EXPECT_EQ(device("c", input)->displayName(), "USB Audio");
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
    EXPECT_EQ(b->displayName(), "USB Audio 1");
    EXPECT_EQ(a->displayName(), "USB Audio 2");
    plug(aDevice().uid("d").name("USB Audio 2").outputs(2)); // already ends in a number
    EXPECT_EQ(device("d", output)->displayName(), "USB Audio 2");
    EXPECT_EQ(b->displayName(), "USB Audio 1");
    EXPECT_EQ(a->displayName(), "USB Audio 3");
}

TEST_F(DXRDeviceManagerTest, reportsDefaultDevices)
{
    plug(headset());
    plug(aDevice().uid("speakers").outputs(2));
    const CXRef<DXRDevice> phones = device("headset", output);
    const CXRef<DXRDevice> speakers = device("speakers", output);
    EXPECT_EQ(manager.defaultOutputDevice(), phones);
    EXPECT_EQ(manager.defaultInputDevice(), device("headset", input));
    changesSinceLast();
    std::vector<std::string> seen;
    const auto observe = [&](const CXRef<DXRKVOHelper>& kvo, const std::string& key, auto now) {
        return kvo->observe(key, [&seen, now](const std::string& changed, DXRKVOChange change) {
            seen.push_back(changed + (change == DXRKVOChange::Will ? " was " : " is ") + now());
        });
    };
    const auto defaultUID = [&] { return manager.defaultOutputDevice()->deviceUID(); };
    const auto first = observe(manager.kvo(), "defaultOutputDevice", defaultUID);
    const auto second = observe(speakers->kvo(), "isDefault",
                                [&] { return std::string(speakers->isDefault() ? "true" : "false"); });
    hal.setDefault(HALDirection::Output, "speakers");
    settle();
    EXPECT_EQ(changesSinceLast().updated, (Devices{phones, speakers}));
    std::ranges::sort(seen);
    EXPECT_EQ(seen,
              (std::vector<std::string>{"defaultOutputDevice is speakers", "defaultOutputDevice was headset",
                                        "isDefault is true", "isDefault was false"}));
    EXPECT_EQ(manager.soundEffectsDevice(), speakers);
    hal.setDefaultSystemOutput("headset");
    settle();
    EXPECT_EQ(changesSinceLast().updated, (Devices{phones, speakers}));
    EXPECT_EQ(manager.soundEffectsDevice(), phones);
    EXPECT_EQ(manager.defaultOutputDevice(), speakers);

    plug(aDevice().uid("mic").inputs(1)); // a change that cannot be read is reported when it can
    changesSinceLast();
    hal.failReads(kAudioHardwarePropertyDefaultInputDevice, 1, 2, kAudioHardwareUnspecifiedError);
    hal.setDefault(HALDirection::Input, "mic");
    EXPECT_TRUE(becomesTrue([&] { return !updates.empty(); }));
    EXPECT_EQ(changesSinceLast().updated, (Devices{device("headset", input), device("mic", input)}));
}

TEST_F(DXRDeviceManagerTest, listsAHiddenDeviceOnceItIsAskedFor)
{
    const AudioObjectID hidden = plug(hiddenDevice("hidden"));
    const AudioObjectID other = plug(hiddenDevice("other"));
    plug(aDevice().uid("plain").outputs(2));
    EXPECT_EQ(manager.connectedDevices().size(), 1U);
    EXPECT_EQ(manager.deviceWithReference(R"({"uid":"hidden","i":false})"), nullptr) << "does not adopt";
    const std::optional<std::string> others[] = {"plain", "nobody", std::nullopt};
    for (const std::optional<std::string>& uid : others)
        EXPECT_FALSE(manager.adoptHiddenDevice(uid));
    using enum DXRDeviceManager::HiddenDevices;
    DXRDeviceManager::queue().sync([&] { // adopting waits for the queue and is refused on it
        EXPECT_THROW(manager.adoptHiddenDevice("hidden"), CXException);
        EXPECT_THROW((void)manager.deviceWithDeviceID(hidden, output), CXException);
        EXPECT_EQ(manager.deviceWithDeviceUID("hidden", output, Leave), nullptr);
        EXPECT_EQ(manager.deviceWithDeviceID(hidden, output, Leave), nullptr);
        EXPECT_TRUE(manager.deviceWithDeviceUID("plain", output)) << "there is nothing to wait for";
        EXPECT_EQ(manager.deviceWithDeviceUID("nobody", output), nullptr);
        EXPECT_EQ(manager.deviceWithDeviceID(1, output), nullptr);
    });
    const CXRef<DXRDevice> adopted = device("hidden", output);
    ASSERT_TRUE(adopted);
    EXPECT_EQ(adopted->deviceID(), hidden);
    EXPECT_EQ(changesSinceLast().connected.count(adopted), 1U);
    EXPECT_TRUE(manager.deviceWithDeviceID(other, output));
    DXRDeviceManager::queue().sync(
        [&] { EXPECT_EQ(manager.deviceWithDeviceUID("hidden", input), nullptr) << "adopted, no inputs"; });
    unplug("hidden");
    plug(hiddenDevice("hidden"));
    EXPECT_TRUE(adopted->isConnected());

    const CXRef<DXRDevice> plain = device("plain", output);
    for (const bool isHidden : {true, false}) { // not adopted: listed only while not hidden
        reconfigure("plain", [&](auto& it) { it.hidden(isHidden); });
        EXPECT_EQ(plain->isConnected(), !isHidden);
    }
    // While the manager cannot read which devices are hidden, known devices stay and new ones are not listed.
    changesSinceLast();
    hal.failReads(kAudioDevicePropertyIsHidden, 1, 1'000'000, kAudioHardwareUnspecifiedError);
    plug(hiddenDevice("shy"));
    plug(aDevice().uid("new").outputs(2));
    EXPECT_TRUE(updates.empty());
    hal.failReads(kAudioDevicePropertyIsHidden, 1, 0, 0);
    EXPECT_TRUE(becomesTrue([&] { return !updates.empty(); }));
    EXPECT_EQ(changesSinceLast().connected, Devices{device("new", output)});
}

TEST_F(DXRDeviceManagerTest, callsObserversAfterTheUpdateOfAnAdoption)
{
    plug(hiddenDevice("shy"));
    const CXRef<DXRDevice> shy = manager.deviceFromArchive(
        bytesOf(R"(DXRDevice:{"vn":1,"ref":"{\"uid\":\"shy\",\"i\":false}","c":2})"));
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

    const std::string text = R"(DXRDevice:{"vn":1,"ref":"{\"uid\":\"far\",\"i\":false}","c":2,"n":"Far"})";
    const CXRef<DXRDevice> far = manager.deviceFromArchive(bytesOf(text));
    ASSERT_TRUE(far);
    EXPECT_EQ(far->displayName(), "⚠️ Far");
    EXPECT_EQ(manager.deviceFromArchive(bytesOf(text)), far);
    EXPECT_EQ(device("far", output), far);
    EXPECT_FALSE(manager.connectedDevices().contains(far));
    plug(aDevice().uid("far").name("Near").outputs(2));
    EXPECT_EQ(device("far", output), far);
    EXPECT_EQ(far->displayName(), "Near");

    const CXRef<DXRDevice> farMic = manager.deviceFromArchive(
        bytesOf(R"(DXRDevice:{"vn":1,"ref":"{\"uid\":\"far\",\"i\":true}","c":1})"));
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

    const std::string broken[] = {"",
                                  "DXRDevice:{",
                                  text.substr(0, text.size() - 1),
                                  "DXRdevice" + text.substr(9),
                                  "DXRDevice:{vn}",
                                  R"(DXRDevice:{"vn":2)" + text.substr(17)};
    for (const std::string& archive : broken)
        EXPECT_EQ(manager.deviceFromArchive(bytesOf(archive)), nullptr) << archive;
}

TEST_F(DXRDeviceManagerTest, callsEveryNotifierOnceOnItsQueue)
{
    const CXRef<dxr::SerialQueue> queue = dxr::SerialQueue::initWithLabel("own");
    int here = 0;
    int there = 0;
    const DXRDeviceManager::NotifierBlock onManagersQueue = [&](const auto&...) {
        here += DXRDeviceManager::queue().isCurrent() ? 1 : 100;
    };
    const DXRDeviceManager::NotifierBlock onOwnQueue = [&](const auto&...) {
        there += queue->isCurrent() ? 1 : 100;
    };
    manager.addDeviceNotifier(nullptr, onManagersQueue);
    manager.addDeviceNotifier(nullptr, onManagersQueue); // the same notifier again
    manager.addDeviceNotifier(queue, onOwnQueue);
    manager.addDeviceNotifier(nullptr, {});
    plug(headset());
    queue->sync([] {});
    const int count = static_cast<int>(updates.size());
    EXPECT_GE(count, 1);
    EXPECT_EQ(here, count);
    EXPECT_EQ(there, count);
    manager.removeDeviceNotifier(onManagersQueue);
    manager.removeDeviceNotifier(onOwnQueue);
    changesSinceLast();
    DXRDeviceManager::queue().sync([&] { // keeps the queue busy until all updates are requested
        for (int i = 0; i < 100; ++i)
            manager.deviceWasUpdated(device("headset", output));
    });
    settle();
    ASSERT_EQ(updates.size(), 1U) << "many requests make one update";
    EXPECT_EQ(updates.front().updated, Devices{device("headset", output)});
    manager.setNeedsDevicesUpdate(false);
    settle();
    EXPECT_EQ(updates.size(), 1U);
    queue->sync([] {});
    EXPECT_EQ(here, count);
    EXPECT_EQ(there, count);
}

TEST_F(DXRDeviceManagerTest, callsNoNotifierThatIsRemoved)
{
    plug(headset());
    const CXRef<DXRDevice> phones = device("headset", output);
    std::atomic<bool> isDone{false};
    std::thread changes([&] {
        while (!isDone) {
            manager.deviceWasUpdated(phones);
            DXRDeviceManager::queue().sync([] {});
        }
    });
    for (int round = 0; round < 500; ++round) {
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
        EXPECT_TRUE(eventually([&] { return calls > 0; }, std::this_thread::yield));
        manager.removeDeviceNotifier(block, DXRDeviceManager::WhenRunning::Wait);
        *isAlive = false;
    }
    isDone = true;
    changes.join();

    // A notifier may be removed by one that is called before it, and by itself.
    int calls = 0;
    DXRDeviceManager::NotifierBlock remover;
    const DXRDeviceManager::NotifierBlock victim = [&](const auto&...) { calls += 100; };
    remover = [&](const auto&...) {
        ++calls;
        manager.removeDeviceNotifier(victim, DXRDeviceManager::WhenRunning::Wait);
        manager.removeDeviceNotifier(remover, DXRDeviceManager::WhenRunning::Wait);
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

} // namespace
