#include "DXRDeviceManagerPrivate.h"
#include "ManagedComputer.h"
#include "Random.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

using Devices = DXRDeviceManager::Devices;

/// All that a manager says, comparable with what another one says.
std::vector<std::string> answersOf(const DXRDeviceManager& manager)
{
    std::vector<std::string> answers;
    for (const CXRef<DXRDevice>& device : manager.connectedDevices()) {
        const CXRef<DXRDevice> other = manager.counterpartForDevice(device);
        answers.push_back(device->archive().dump() + "|" + device->displayName() + "|" +
                          device->displayNameWithSource() + "|" + std::to_string(device->deviceID()) +
                          (device->isDefault() ? "|default|" : "|") + (other ? other->deviceUID() : ""));
    }
    std::ranges::sort(answers);
    const auto uidOf = [](const CXRef<DXRDevice>& device) { return device ? device->deviceUID() : "none"; };
    answers.push_back(uidOf(manager.defaultInputDevice()) + uidOf(manager.defaultOutputDevice()) +
                      uidOf(manager.soundEffectsDevice()));
    return answers;
}

SimulatedDeviceBuilder card(const std::string& uid)
{
    return aDevice()
        .uid(uid)
        .name("Card")
        .manufacturer("Maker")
        .inputs(1)
        .outputs(2)
        .source(HALDirection::Output, 1, "Line")
        .source(HALDirection::Output, 2, "Phones")
        .volume(HALDirection::Output, 0.5F)
        .mute(HALDirection::Output, false);
}

class DXRDeviceFaults : public ManagedComputer {
protected:
    /// Devices come, go and change, twelve times.
    void storm()
    {
        hal.plug(card("b"));
        hal.reconfigure("a", [](auto& it) { it.name("Other").volume(HALDirection::Output, 0.75F); });
        hal.setDefault(HALDirection::Output, "b");
        hal.settle();
        hal.unplug("a");
        hal.plug(aDevice()
                     .uid("AppleGFXHDAEngineOutputDP:1:2:{9}")
                     .transport(kAudioDeviceTransportTypeDisplayPort)
                     .outputs(2));
        settle();
        hal.plug(card("a"));
        hal.reconfigure("b", [](auto& it) { it.noStreams(HALDirection::Input); });
        hal.reconfigure("b", [](auto& it) { it.currentSource(HALDirection::Output, 2); });
        hal.settle();
        hal.unplug("AppleGFXHDAEngineOutputDP:1:2:{9}");
        hal.plug(aDevice()
                     .uid("AppleGFXHDAEngineOutputDP:3:4:{9}")
                     .transport(kAudioDeviceTransportTypeDisplayPort)
                     .outputs(2));
        hal.reconfigure("b", [](auto& it) { it.inputs(1); });
        hal.setDefault(HALDirection::Output, "a");
        settle();
    }
    void calm()
    {
        for (const char* uid :
             {"a", "b", "AppleGFXHDAEngineOutputDP:3:4:{9}", "AppleGFXHDAEngineOutputDP:1:2:{9}"})
            hal.unplug(uid);
        settle();
    }
    /// Whether the manager comes to answer what a fresh one answers, and to have told what it answers.
    testing::AssertionResult isSound()
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        std::vector<std::string> here;
        std::vector<std::string> fresh;
        do {
            settle();
            here = answersOf(manager);
            fresh = answersOf(*DXRNewDeviceManager());
            bool isTold = false;
            DXRDeviceManager::queue().sync([&] { isTold = _mirror() == manager.connectedDevices(); });
            if (here == fresh && isTold)
                return testing::AssertionSuccess();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        } while (std::chrono::steady_clock::now() < deadline);
        return testing::AssertionFailure()
               << "here " << testing::PrintToString(here) << "\nfresh " << testing::PrintToString(fresh);
    }

private:
    /// The connected devices by what notifiers were told.
    const Devices& _mirror()
    {
        for (const Told& one : std::exchange(told, {})) {
            for (const CXRef<DXRDevice>& gone : one.disconnected)
                _connected.erase(gone);
            _connected.insert(one.connected.begin(), one.connected.end());
        }
        return _connected;
    }
    Devices _connected;
};

TEST_F(DXRDeviceFaults, areMendedWhicheverReadFails)
{
    plug(card("a"));
    const CXRef<DXRDevice> a = device("a", output);
    ASSERT_TRUE(isSound());
    // A storm takes some hundreds of reads. Each of them fails once, alone or with those that follow.
    for (uint64_t nth = 1; nth <= 700; nth += nth < 400 ? 1 : 7) {
        hal.failReads(kAudioObjectPropertySelectorWildcard, nth, nth % 3 == 0 ? 20 : 1,
                      kAudioHardwareUnspecifiedError);
        storm();
        hal.failReads(kAudioObjectPropertySelectorWildcard, 1, 0, 0);
        ASSERT_TRUE(isSound()) << "read " << nth;
        ASSERT_EQ(device("a", output), a) << "read " << nth;
        hal.unplug("b");
        hal.unplug("AppleGFXHDAEngineOutputDP:3:4:{9}");
        settle();
    }
}

TEST_F(DXRDeviceFaults, aListThatChangesWhileItIsReadIsStillRead)
{
    plug(card("a"));
    bool isPlugged = false;
    for (int i = 0; i < 100'000; ++i) {
        hal.beforeRead(kAudioHardwarePropertyDevices, 1, [&] { // after its size was asked
            if (std::exchange(isPlugged, !isPlugged))
                hal.unplug("b");
            else
                hal.plug(aDevice().uid("b").outputs(1));
        });
        manager.setNeedsDevicesUpdate(true);
        DXRDeviceManager::queue().sync([] {});
        if (i % 1000 == 0) {
            ASSERT_TRUE(device("a", output)->isConnected());
            dxr::MainQueue::shared().drain();
        }
    }
    EXPECT_TRUE(isSound());
}

TEST_F(DXRDeviceFaults, ofManyKindsAtOnceLeaveNoTrace)
{
    plug(card("a"));
    Random random(5);
    for (int round = 0; round < 20; ++round) {
        std::thread reader([&] { // somebody looks at everything all the time
            for (int i = 0; i < 50; ++i) {
                answersOf(manager);
                manager.deviceWithReference(R"({"uid":"a","i":false})");
            }
        });
        for (int i = 0; i < 30; ++i) {
            const std::string uid = std::string(1, static_cast<char>('a' + random.below(4)));
            hal.failReads(kAudioObjectPropertySelectorWildcard, 1 + random.below(100), random.below(30),
                          kAudioHardwareUnspecifiedError);
            switch (random.below(4)) {
            case 0:
                hal.plug(card(uid));
                break;
            case 1:
                hal.unplug(uid);
                break;
            case 2:
                hal.reconfigure(uid, [&](auto& it) { it.name("Card " + std::to_string(random.below(2))); });
                break;
            default:
                if (const CXRef<DXRDevice> one =
                        manager.deviceWithReference("{\"uid\":\"" + uid + "\",\"i\":false}"))
                    (void)one->setVolume(0.25);
            }
        }
        reader.join();
        hal.failReads(kAudioObjectPropertySelectorWildcard, 1, 0, 0);
        hal.failWrites(0);
        ASSERT_TRUE(isSound()) << "round " << round;
    }
}

} // namespace
