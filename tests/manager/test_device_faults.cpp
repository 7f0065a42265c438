#include "DXRDeviceManagerPrivate.h"
#include "DXRDeviceOverrides.h"
#include "ManagedComputer.h"

#include <algorithm>

namespace {

/// Returns the state of a manager, for comparison with another manager's.
std::vector<CXPlist> stateOf(DXRDeviceManager& manager)
{
    const auto uidOf = [](const CXRef<DXRDevice>& device) { return device ? device->deviceUID() : "none"; };
    std::vector<CXPlist> state{{uidOf(manager.defaultInputDevice()), uidOf(manager.defaultOutputDevice()),
                                uidOf(manager.soundEffectsDevice())}};
    for (const CXRef<DXRDevice>& device : manager.connectedDevices())
        state.push_back({device->archive(), device->displayName(), device->displayNameWithSource(),
                         device->deviceID(), device->isDefault(), uidOf(manager.counterpartForDevice(device)),
                         manager.deviceWithReference(device->reference()->description()) == device});
    std::ranges::sort(state);
    return state;
}

SimulatedDeviceBuilder card(const std::string& uid)
{
    SimulatedDeviceBuilder made = aDevice().uid(uid).name("Card").manufacturer("Maker").inputs(1).outputs(2);
    made.source(HALDirection::Output, 1, "Line").source(HALDirection::Output, 2, "Phones");
    return made.volume(HALDirection::Output, 0.5F).mute(HALDirection::Output, false);
}

class DXRDeviceFaults : public ManagedComputer {
protected:
    void storm()
    {
        hal.plug(card("b"));
        hal.reconfigure("a", [](auto& it) { it.name("Other").volume(HALDirection::Output, 0.75F); });
        hal.setDefault(HALDirection::Output, "b");
        hal.settle();
        hal.unplug("a");
        hal.plug(monitor("1:2"));
        settle();
        hal.plug(card("a"));
        hal.reconfigure("b", [](auto& it) { it.noStreams(HALDirection::Input); });
        hal.reconfigure("b", [](auto& it) { it.currentSource(HALDirection::Output, 2); });
        hal.settle();
        hal.unplug(monitorUID("1:2"));
        hal.plug(monitor("3:4"));
        hal.reconfigure("b", [](auto& it) { it.inputs(1); });
        hal.setDefault(HALDirection::Output, "a");
        settle();
    }
    /// Whether the manager's state, and the devices reported to notifiers, become equal to a new manager's.
    testing::AssertionResult isSound()
    {
        std::vector<CXPlist> here, fresh;
        const bool isEqual = becomesTrue([&] {
            here = stateOf(manager);
            fresh = stateOf(*DXRNewDeviceManager());
            bool isReported = false;
            DXRDeviceManager::queue().sync([&] { isReported = _mirror() == manager.connectedDevices(); });
            return here == fresh && isReported;
        });
        return (isEqual ? testing::AssertionSuccess() : testing::AssertionFailure())
               << "here " << testing::PrintToString(here) << "\nnew " << testing::PrintToString(fresh);
    }

private:
    /// The connected devices according to the notifier's calls.
    const Devices& _mirror()
    {
        for (const Changes& one : std::exchange(updates, {})) {
            for (const CXRef<DXRDevice>& gone : one.disconnected)
                _connected.erase(gone);
            _connected.insert(one.connected.begin(), one.connected.end());
        }
        return _connected;
    }
    Devices _connected;
};

// A storm makes some hundreds of reads. Each of them fails once, alone or with the following ones, while
// another thread asks for the devices.
TEST_F(DXRDeviceFaults, recoversFromAnyFailedRead)
{
    plug(card("a"));
    const CXRef<DXRDevice> a = device("a", output);
    ASSERT_TRUE(isSound());
    const std::jthread reader([this](const std::stop_token& isOver) {
        for (; !isOver.stop_requested(); sleepForMilliseconds(1))
            stateOf(manager);
    });
    for (uint64_t nth = 1; nth <= 700; nth += nth < 400 ? 1 : 7) {
        hal.failReads(kAudioObjectPropertySelectorWildcard, nth, nth % 3 == 0 ? 20 : 1,
                      kAudioHardwareUnspecifiedError);
        storm();
        hal.failReads(kAudioObjectPropertySelectorWildcard, 1, 0, 0);
        ASSERT_TRUE(isSound()) << "read " << nth;
        ASSERT_EQ(device("a", output), a) << "read " << nth;
        hal.unplug("b");
        hal.unplug(monitorUID("3:4"));
        settle();
    }
}

// Each read of the first meeting fails once. A known monitor returns, and another one is new.
TEST_F(DXRDeviceFaults, knowsADeviceThatItCouldNotReadAtFirst)
{
    const std::string port = monitorUID("1:2");
    plug(monitor("1:2").name("Known"));
    const CXRef<DXRDevice> known = device(port, output);
    unplug(port);
    for (uint64_t nth = 1; nth <= 20; ++nth) {
        SCOPED_TRACE(nth);
        const auto plugWhileReadsFail = [&](const SimulatedDeviceBuilder& it) {
            hal.failReads(kAudioObjectPropertySelectorWildcard, nth, 1, kAudioHardwareUnspecifiedError);
            plug(it);
            EXPECT_TRUE(becomesTrue([&] { return !manager.connectedDevices().empty(); }));
            hal.failReads(kAudioObjectPropertySelectorWildcard, 1, 0, 0);
            const Devices connected = manager.connectedDevices();
            return connected.empty() ? nullptr : *connected.begin();
        };
        EXPECT_EQ(plugWhileReadsFail(monitor("3:4").name("Known")), known);
        unplug(monitorUID("3:4"));
        const CXRef<DXRDevice> fresh = plugWhileReadsFail(monitor("1:2").name(std::to_string(nth)));
        ASSERT_TRUE(fresh);
        EXPECT_TRUE(fresh->setOverride(5, "k"));
        const auto stored = DXRDeviceOverrides::initWithDeviceReference(
            DXRDeviceReference::initWithDeviceID(fresh->deviceID(), output));
        EXPECT_EQ(stored->objectForKey("k"), 5) << fresh->reference()->string();
        unplug(port);
    }
}

TEST_F(DXRDeviceFaults, disconnectsNoDeviceThatItCannotRead)
{
    plug(card("a"));
    plug(monitor("1:2"));
    plug(aDevice().uid("shy").hidden().outputs(2));
    ASSERT_TRUE(device("shy", output));
    changesSinceLast();
    for (uint64_t nth = 1; nth <= 60; ++nth) {
        hal.failReads(kAudioObjectPropertySelectorWildcard, nth, 1, kAudioHardwareUnspecifiedError);
        manager.setNeedsDevicesUpdate(true);
        settle();
        const Changes changes = changesSinceLast();
        EXPECT_TRUE(changes.connected.empty() && changes.disconnected.empty()) << "read " << nth;
    }
}

// The first failure leaves one direction out. The second one is of what is connected by then.
TEST_F(DXRDeviceFaults, disconnectsNoDeviceThatItHasReadInPart)
{
    constexpr uint32_t uid = kAudioDevicePropertyDeviceUID, layout = kAudioDevicePropertyStreamConfiguration;
    using Row = std::tuple<uint64_t, uint32_t, uint64_t>; // reads 1 and 2 are of the input's layout
    for (const auto& [first, selector, second] :
         {Row{1, uid, 1}, {2, layout, 3}, {3, uid, 1}, {4, layout, 1}}) {
        const DXRDeviceManager::NotifierBlock failAgain =
            [&, selector = selector, second = second](const Devices& connected, auto&&...) {
                if (connected.size() == 1 && manager.connectedDevices() == connected)
                    hal.failReads(selector, second, 1, kAudioHardwareUnspecifiedError);
            };
        manager.addDeviceNotifier(nullptr, failAgain);
        hal.failReads(layout, first, 1, kAudioHardwareUnspecifiedError);
        plug(headset());
        EXPECT_TRUE(becomesTrue([&] { return manager.connectedDevices().size() == 2; }));
        manager.removeDeviceNotifier(failAgain, DXRDeviceManager::WhenRunning::Wait);
        EXPECT_TRUE(changesSinceLast().disconnected.empty()) << first;
        unplug("headset");
        changesSinceLast();
    }
}

} // namespace
