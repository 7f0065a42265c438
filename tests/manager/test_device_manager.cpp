#include "CXException.h"
#include "ManagedComputer.h"
#include "SerialQueue.h"

#include <atomic>
#include <chrono>
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

TEST_F(DXRDeviceManagerTest, keepsDeviceObjectsAcrossAReplug)
{
    const AudioObjectID firstID = plug(headset());
    const CXRef<DXRDevice> mic = device("headset", input);
    const CXRef<DXRDevice> phones = device("headset", output);
    ASSERT_TRUE(mic && phones);
    Told heard = toldSinceLast();
    EXPECT_EQ(heard.connected, (Devices{mic, phones}));
    EXPECT_EQ(heard.updated, (Devices{mic, phones}));
    EXPECT_EQ(manager.connectedDevices(), (Devices{mic, phones}));
    EXPECT_EQ(manager.counterpartForDevice(mic), phones);

    unplug("headset");
    heard = toldSinceLast();
    EXPECT_EQ(heard.disconnected, (Devices{mic, phones}));
    EXPECT_EQ(heard.updated, (Devices{mic, phones}));
    EXPECT_TRUE(heard.connected.empty());
    EXPECT_TRUE(manager.connectedDevices().empty());
    EXPECT_FALSE(phones->isConnected());
    EXPECT_EQ(phones->displayName(), "⚠️ Headset");
    EXPECT_EQ(device("headset", output), phones); // absent, but known
    EXPECT_EQ(manager.counterpartForDevice(mic), phones);

    const AudioObjectID secondID = plug(headset());
    EXPECT_NE(firstID, secondID);
    EXPECT_EQ(toldSinceLast().connected, (Devices{mic, phones}));
    EXPECT_EQ(phones->deviceID(), secondID);
    EXPECT_EQ(manager.deviceWithDeviceID(secondID, output), phones);
    EXPECT_EQ(manager.deviceWithDeviceID(firstID, output), nullptr);
    EXPECT_EQ(phones->displayName(), "Headset");
}

TEST_F(DXRDeviceManagerTest, stashesADirectionThatGoesAndBringsItBack)
{
    plug(headset());
    const CXRef<DXRDevice> mic = device("headset", input);
    const CXRef<DXRDevice> phones = device("headset", output);
    toldSinceLast();
    hal.reconfigure("headset", [](auto& it) { it.noStreams(HALDirection::Input); });
    settle();
    Told heard = toldSinceLast();
    EXPECT_EQ(heard.disconnected, Devices{mic});
    EXPECT_TRUE(heard.connected.empty());
    EXPECT_TRUE(heard.updated.contains(mic));
    EXPECT_EQ(manager.connectedDevices(), Devices{phones});
    EXPECT_EQ(device("headset", input), mic);
    EXPECT_EQ(manager.counterpartForDevice(phones), nullptr);

    hal.reconfigure("headset", [](auto& it) { it.inputs(1); });
    settle();
    heard = toldSinceLast();
    EXPECT_EQ(heard.connected, Devices{mic});
    EXPECT_TRUE(heard.disconnected.empty());
    EXPECT_TRUE(mic->isConnected());
    EXPECT_EQ(manager.counterpartForDevice(phones), mic);
}

TEST_F(DXRDeviceManagerTest, knowsAMonitorAgainOnAnotherPort)
{
    const auto monitor = [](const std::string& port) {
        return aDevice()
            .uid("AppleGFXHDAEngineOutputDP:" + port + ":{1234}")
            .name("Monitor")
            .transport(kAudioDeviceTransportTypeDisplayPort);
    };
    plug(monitor("1:2").outputs(2));
    const CXRef<DXRDevice> speakers = device("AppleGFXHDAEngineOutputDP:1:2:{1234}", output);
    const std::string stored = speakers->reference()->string();
    unplug("AppleGFXHDAEngineOutputDP:1:2:{1234}");
    plug(monitor("7:8").outputs(2));
    EXPECT_EQ(device("AppleGFXHDAEngineOutputDP:7:8:{1234}", output), speakers);
    EXPECT_EQ(speakers->deviceUID(), "AppleGFXHDAEngineOutputDP:7:8:{1234}");
    EXPECT_EQ(manager.deviceWithReference(stored), speakers);

    // Another count of channels is another device, also when it changes under way.
    hal.reconfigure("AppleGFXHDAEngineOutputDP:7:8:{1234}", [](auto& it) { it.outputs(6); });
    settle();
    const CXRef<DXRDevice> other = device("AppleGFXHDAEngineOutputDP:7:8:{1234}", output);
    EXPECT_NE(other, speakers);
    ASSERT_TRUE(other);
    EXPECT_EQ(other->channelCount(), 8U);
    EXPECT_FALSE(speakers->isConnected());
}

TEST_F(DXRDeviceManagerTest, numbersDevicesOfOneNameAsLongAsThereAreSeveral)
{
    const auto card = [](const std::string& uid) {
        return aDevice().uid(uid).name("USB Audio").outputs(2).source(HALDirection::Output, 1, "Line");
    };
    plug(card("a"));
    plug(card("b"));
    plug(aDevice().uid("c").name("USB Audio").inputs(2)); // another direction does not count
    const CXRef<DXRDevice> a = device("a", output);
    const CXRef<DXRDevice> b = device("b", output);
    EXPECT_EQ(a->displayName(), "USB Audio 1"); // the lower ID
    EXPECT_EQ(b->displayName(), "USB Audio 2");
    EXPECT_EQ(b->displayNameWithSource(), "USB Audio: Line 2");
    EXPECT_EQ(device("c", input)->displayName(), "USB Audio");
    toldSinceLast();
    hal.reconfigure("b", [](auto& it) { it.source(HALDirection::Output, 2, "Phones"); });
    hal.reconfigure("b", [](auto& it) { it.currentSource(HALDirection::Output, 2); });
    settle();
    EXPECT_EQ(b->displayNameWithSource(), "USB Audio: Phones");
    EXPECT_EQ(a->displayNameWithSource(), "USB Audio: Line");
    EXPECT_EQ(b->displayName(), "USB Audio 2");
    toldSinceLast();
    unplug("a");
    EXPECT_EQ(b->displayName(), "USB Audio");
    EXPECT_EQ(toldSinceLast().updated, (Devices{a, b}));
    plug(card("a")); // with a higher ID now
    EXPECT_EQ(b->displayName(), "USB Audio 1");
    EXPECT_EQ(a->displayName(), "USB Audio 2");
    plug(aDevice().uid("d").name("USB Audio 2").outputs(2)); // a number that is taken
    EXPECT_EQ(device("d", output)->displayName(), "USB Audio 2");
    EXPECT_EQ(b->displayName(), "USB Audio 1");
    EXPECT_EQ(a->displayName(), "USB Audio 3");
}

TEST_F(DXRDeviceManagerTest, tellsOfDefaultDevices)
{
    plug(headset());
    plug(aDevice().uid("speakers").outputs(2));
    const CXRef<DXRDevice> phones = device("headset", output);
    const CXRef<DXRDevice> speakers = device("speakers", output);
    EXPECT_EQ(manager.defaultOutputDevice(), phones);
    EXPECT_EQ(manager.defaultInputDevice(), device("headset", input));
    toldSinceLast();
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
    EXPECT_EQ(toldSinceLast().updated, (Devices{phones, speakers}));
    std::ranges::sort(seen);
    EXPECT_EQ(seen,
              (std::vector<std::string>{"defaultOutputDevice is speakers", "defaultOutputDevice was headset",
                                        "isDefault is true", "isDefault was false"}));
    EXPECT_EQ(manager.soundEffectsDevice(), speakers);
    hal.setDefaultSystemOutput("headset");
    settle();
    EXPECT_EQ(manager.soundEffectsDevice(), phones);
    EXPECT_EQ(manager.defaultOutputDevice(), speakers);
}

TEST_F(DXRDeviceManagerTest, listsAHiddenDeviceOnceSomebodyAsksForIt)
{
    const AudioObjectID hidden = plug(aDevice().uid("hidden").hidden().outputs(2));
    const AudioObjectID other = plug(aDevice().uid("other").hidden().outputs(2));
    plug(aDevice().uid("plain").outputs(2));
    EXPECT_EQ(manager.connectedDevices().size(), 1U);
    EXPECT_EQ(manager.deviceWithReference(R"({"uid":"hidden","i":false})"), nullptr); // does not adopt
    EXPECT_FALSE(manager.adoptHiddenDevice("plain"));
    EXPECT_FALSE(manager.adoptHiddenDevice("nobody"));
    EXPECT_FALSE(manager.adoptHiddenDevice(std::nullopt));
    const CXRef<DXRDevice> adopted = device("hidden", output);
    ASSERT_TRUE(adopted);
    EXPECT_EQ(adopted->deviceID(), hidden);
    EXPECT_EQ(toldSinceLast().connected.count(adopted), 1U);
    EXPECT_TRUE(manager.deviceWithDeviceID(other, output));
    unplug("hidden");
    plug(aDevice().uid("hidden").hidden().outputs(2));
    EXPECT_TRUE(adopted->isConnected());
}

TEST_F(DXRDeviceManagerTest, followsADeviceThatHidesAndShowsItself)
{
    plug(aDevice().uid("shy").outputs(2));
    const CXRef<DXRDevice> shy = device("shy", output);
    for (const bool isHidden : {true, false}) {
        hal.reconfigure("shy", [&](auto& it) { it.hidden(isHidden); });
        settle();
        EXPECT_EQ(shy->isConnected(), !isHidden);
    }
}

TEST_F(DXRDeviceManagerTest, bringsDevicesBackFromArchives)
{
    plug(headset());
    const CXRef<DXRDevice> phones = device("headset", output);
    const std::vector<std::byte> archive = DXRDeviceManager::archiveForDevice(phones).value();
    EXPECT_EQ(DXRDeviceManager::archiveForDevice(nullptr), std::nullopt);
    EXPECT_EQ(manager.deviceFromArchive(archive), phones);

    const auto absent =
        bytesOf(R"(DXRDevice:{"vn":1,"ref":"{\"uid\":\"far\",\"i\":false}","c":2,"n":"Far"})");
    const CXRef<DXRDevice> far = manager.deviceFromArchive(absent);
    ASSERT_TRUE(far);
    EXPECT_EQ(far->displayName(), "⚠️ Far");
    EXPECT_EQ(manager.deviceFromArchive(absent), far);
    EXPECT_EQ(device("far", output), far);
    EXPECT_FALSE(manager.connectedDevices().contains(far));
    plug(aDevice().uid("far").name("Near").outputs(2));
    EXPECT_EQ(device("far", output), far);
    EXPECT_EQ(far->displayName(), "Near");

    // The other direction of a device that is there has a place, too.
    const CXRef<DXRDevice> farMic = manager.deviceFromArchive(
        bytesOf(R"(DXRDevice:{"vn":1,"ref":"{\"uid\":\"far\",\"i\":true}","c":1})"));
    ASSERT_TRUE(farMic);
    EXPECT_FALSE(farMic->isConnected());
    hal.reconfigure("far", [](auto& it) { it.inputs(1); });
    settle();
    EXPECT_TRUE(farMic->isConnected());
    EXPECT_EQ(device("far", input), farMic);
}

TEST_F(DXRDeviceManagerTest, refusesWhatIsNoArchive)
{
    const std::string good = R"("ref":"{\"uid\":\"x\",\"i\":false}","c":2)";
    const struct {
        const char* why;
        std::string text;
    } rows[] = {
        {"empty", ""},
        {"only the prefix", "DXRDevice:{"},
        {"no end", "DXRDevice:{\"vn\":1," + good},
        {"another prefix", "DXRdevice:{\"vn\":1," + good + "}"},
        {"not JSON", "DXRDevice:{vn}"},
        {"another version", "DXRDevice:{\"vn\":2," + good + "}"},
        {"a version that is no number", "DXRDevice:{\"vn\":\"1\"," + good + "}"},
        {"no version", "DXRDevice:{" + good + "}"},
        {"no reference", "DXRDevice:{\"vn\":1,\"c\":2}"},
        {"no direction", R"(DXRDevice:{"vn":1,"ref":"{\"uid\":\"x\"}","c":2})"},
        {"no channels", R"(DXRDevice:{"vn":1,"ref":"{\"uid\":\"x\",\"i\":false}"})"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(manager.deviceFromArchive(bytesOf(row.text)), nullptr) << row.why;
    EXPECT_TRUE(manager.deviceFromArchive(bytesOf("DXRDevice:{\"vn\":1," + good + "}")));
}

TEST_F(DXRDeviceManagerTest, looksDevicesUpByReferenceOnlyWithADirection)
{
    plug(headset());
    const CXRef<DXRDevice> mic = device("headset", input);
    EXPECT_EQ(manager.deviceWithReference(mic->reference()->string()), mic);
    EXPECT_EQ(manager.deviceWithReference(R"({"uid":"headset"})"), nullptr);
    EXPECT_EQ(manager.deviceWithReference("headset"), nullptr);
    EXPECT_EQ(manager.deviceWithReference(std::nullopt), nullptr);
    EXPECT_EQ(manager.deviceWithDeviceUID(std::nullopt, input), nullptr);
    EXPECT_EQ(manager.deviceWithDeviceUID("nobody", input), nullptr);
    EXPECT_EQ(manager.counterpartForDevice(nullptr), nullptr);
}

TEST_F(DXRDeviceManagerTest, tellsEveryNotifierOnceWhereItWants)
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
    manager.addDeviceNotifier(nullptr, onManagersQueue); // the same one
    manager.addDeviceNotifier(queue, onOwnQueue);
    manager.addDeviceNotifier(nullptr, {});
    plug(headset());
    queue->sync([] {});
    const int updates = static_cast<int>(told.size());
    EXPECT_GE(updates, 1);
    EXPECT_EQ(here, updates);
    EXPECT_EQ(there, updates);
    manager.removeDeviceNotifier(onManagersQueue);
    manager.removeDeviceNotifier(onOwnQueue);
    unplug("headset");
    queue->sync([] {});
    EXPECT_EQ(here, updates);
    EXPECT_EQ(there, updates);
}

TEST_F(DXRDeviceManagerTest, makesOneUpdateOfManyRequests)
{
    plug(headset());
    const CXRef<DXRDevice> phones = device("headset", output);
    toldSinceLast();
    DXRDeviceManager::queue().sync([&] { // the queue is busy until all have been made
        for (int i = 0; i < 100; ++i)
            manager.deviceWasUpdated(phones);
    });
    settle();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told.front().updated, Devices{phones});
    manager.setNeedsDevicesUpdate(false);
    settle();
    EXPECT_EQ(told.size(), 1U);
}

TEST_F(DXRDeviceManagerTest, announcesTheListWithTheOldOneBefore)
{
    std::vector<size_t> counts;
    const auto observation =
        manager.kvo()->observe("connectedDevices", [&](const std::string&, DXRKVOChange) {
            counts.push_back(manager.connectedDevices().size());
        });
    plug(headset());
    EXPECT_EQ(counts, (std::vector<size_t>{0, 2}));
}

TEST_F(DXRDeviceManagerTest, refusesToWaitForItsOwnQueue)
{
    plug(headset());
    const AudioObjectID shy = plug(aDevice().uid("shy").hidden().outputs(2));
    std::promise<int> refused;
    DXRDeviceManager::queue().async([&] {
        int count = 0;
        const auto expectRefusal = [&](const auto& call) {
            try {
                call();
            } catch (const CXException&) {
                ++count;
            }
        };
        expectRefusal([&] { manager.adoptHiddenDevice("x"); });
        expectRefusal([&] { manager.deviceWithDeviceID(shy, output); });
        refused.set_value(count);
        // There is nothing to wait for.
        EXPECT_TRUE(manager.deviceWithDeviceUID("headset", output));
        EXPECT_EQ(manager.deviceWithDeviceUID("nobody", output), nullptr);
        EXPECT_EQ(manager.deviceWithDeviceID(1, output), nullptr);
    });
    EXPECT_EQ(refused.get_future().get(), 2);
}

TEST_F(DXRDeviceManagerTest, leavesHiddenDevicesAloneWhenAsked)
{
    using enum DXRDeviceManager::HiddenDevices;
    const AudioObjectID shy = plug(aDevice().uid("shy").hidden().outputs(2));
    DXRDeviceManager::queue().sync([&] { // where adopting is refused
        EXPECT_EQ(manager.deviceWithDeviceUID("shy", output, Leave), nullptr);
        EXPECT_EQ(manager.deviceWithDeviceID(shy, output, Leave), nullptr);
    });
    EXPECT_TRUE(manager.connectedDevices().empty());
    ASSERT_TRUE(device("shy", output));
    DXRDeviceManager::queue().sync([&] {
        EXPECT_TRUE(manager.deviceWithDeviceUID("shy", output, Leave));
        EXPECT_EQ(manager.deviceWithDeviceUID("shy", input), nullptr) << "adopted, and without inputs";
    });
}

TEST_F(DXRDeviceManagerTest, callsObserversAfterTheUpdateOfAnAdoption)
{
    plug(aDevice().uid("shy").hidden().outputs(2));
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
    EXPECT_TRUE(manager.adoptHiddenDevice(
        "shy")); // on the main thread, which runs the update while the queue is idle
    settle();
    EXPECT_EQ(calls, 1);
}

TEST_F(DXRDeviceManagerTest, tellsOfADefaultDeviceThatCouldNotBeReadAtOnce)
{
    plug(headset());
    plug(aDevice().uid("mic").inputs(1));
    const CXRef<DXRDevice> mic = device("mic", input);
    toldSinceLast();
    hal.failReads(kAudioHardwarePropertyDefaultInputDevice, 1, 2, kAudioHardwareUnspecifiedError);
    hal.setDefault(HALDirection::Input, "mic");
    Devices updated;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (updated.empty() && std::chrono::steady_clock::now() < deadline) {
        settle();
        updated = toldSinceLast().updated;
    }
    EXPECT_EQ(updated, (Devices{device("headset", input), mic}));
}

TEST_F(DXRDeviceManagerTest, showsNoDeviceThatMayBeHidden)
{
    plug(headset());
    toldSinceLast();
    hal.failReads(kAudioDevicePropertyIsHidden, 1, 1'000'000, kAudioHardwareUnspecifiedError);
    hal.plug(aDevice().uid("shy").hidden().outputs(2));
    hal.plug(aDevice().uid("plain").outputs(2));
    settle();
    EXPECT_TRUE(told.empty()) << "the known device stays, too";
    hal.failReads(kAudioDevicePropertyIsHidden, 1, 0, 0);
    Devices connected;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (connected.empty() && std::chrono::steady_clock::now() < deadline) {
        settle();
        connected = toldSinceLast().connected;
    }
    EXPECT_EQ(connected, Devices{device("plain", output)});
}

TEST_F(DXRDeviceManagerTest, answersAllDevicesThatAReferenceMayMean)
{
    const auto monitor = [](const std::string& port) {
        return aDevice()
            .uid("AppleGFXHDAEngineOutputDP:" + port + ":{7}")
            .transport(kAudioDeviceTransportTypeDisplayPort)
            .outputs(2);
    };
    const AudioObjectID first = plug(monitor("1:1"));
    plug(monitor("2:2"));
    plug(monitor("3:3"));
    const CXRef<DXRDevice> one = manager.deviceWithDeviceID(first, output);
    const CXRef<DXRDevice> two = device("AppleGFXHDAEngineOutputDP:2:2:{7}", output);
    const CXRef<DXRDevice> three = device("AppleGFXHDAEngineOutputDP:3:3:{7}", output);
    using List = std::vector<CXRef<DXRDevice>>;
    const std::string text = one->reference()->string();
    EXPECT_EQ(manager.devicesWithReference(text), List{one});
    std::string elsewhere = text;
    elsewhere.replace(elsewhere.find("1:1"), 3, "9:9");
    EXPECT_EQ(manager.devicesWithReference(elsewhere), (List{one, two, three}));
    unplug(one->deviceUID());
    EXPECT_EQ(manager.devicesWithReference(text), (List{two, three, one})) << "as deviceWithReference()";
    EXPECT_EQ(manager.deviceWithReference(text), two);
    EXPECT_TRUE(manager.devicesWithReference("{}").empty());
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
        auto isAlive = std::make_unique<std::atomic<bool>>(true); // freed when the removal is over
        std::atomic<int> calls{0};
        const DXRDeviceManager::NotifierBlock block = [&, alive = isAlive.get()](const auto&...) {
            ++calls;
            std::this_thread::yield();
            EXPECT_TRUE(*alive);
        };
        manager.addDeviceNotifier(queue, block);
        while (calls == 0)
            std::this_thread::yield();
        manager.removeDeviceNotifier(block, DXRDeviceManager::WhenRunning::Wait);
        *isAlive = false;
        isAlive.reset();
    }
    isDone = true;
    changes.join();

    // By one that is called before it, and by itself.
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

TEST(DXRDeviceManagerStart, worksForWhoeverHoldsTheLock)
{
    HALSetHardwareDriver(SimulatedHardware::init(SimulatedClock::Stepped));
    DXRDeviceManager::lock().execute([] {
        DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
        EXPECT_EQ(DXRDeviceManager::init().get(), &manager);
        EXPECT_TRUE(manager.connectedDevices().empty());
    });
}

} // namespace
