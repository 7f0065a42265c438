#include "EngineComputer.h"
#include "MainQueue.h"

#include <chrono>
#include <future>

namespace {

using HiddenDevices = EngineComputer;

/// A runner looks up its subdevices in both directions, of which a hidden one may lack either.
TEST_F(HiddenDevices, areRunWithoutAnUpdateOfTheManagerOnTheRunnersQueue)
{
    plugged(aDevice().uid("plain").outputs(2));
    plugged(aDevice().uid("shy").hidden().inputs(2));
    const DXRDeviceRunner::DeviceNotifier notifier = [](const auto&...) {};
    runner->addDeviceNotifier(notifier);
    const CXRef<DXRDevice> shy = device("shy", input);
    const CXRef<DXRDevice> plain = device("plain", output);
    ASSERT_TRUE(shy && plain);
    const DXRIOBlock ioblock = [](uint64_t, DXRBuffer&) {};
    runner->start();
    EXPECT_TRUE(runner->addDevice(plain, DXRDeviceRunner::Channels{1, 2}, ioblock));
    // From a notifier, which the manager's queue waits for.
    std::promise<bool> added;
    const DXRDeviceManager::NotifierBlock adding = [&, isFirst = true](const auto&...) mutable {
        if (std::exchange(isFirst, false))
            added.set_value(runner->addDevice(shy, DXRDeviceRunner::Channels{1, 2}, ioblock));
    };
    manager.addDeviceNotifier(nullptr, adding);
    manager.deviceWasUpdated(plain);
    std::future<bool> result = added.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_TRUE(result.get());
    manager.removeDeviceNotifier(adding);
    settleEngine();
    EXPECT_EQ(runner->activeDevices().size(), 2U);
    runner->removeDeviceNotifier(notifier);
}

} // namespace
