#include "Conformance.h"

#include "SerialQueue.h"

#include <future>
#include <thread>

namespace {

TEST_F(Conformance, letsAListenerReadTheNewValueAndCallBackIn)
{
    std::string uid;
    const AudioObjectID device = plugged("Before", 0, 2, &uid);
    const auto name = at(kAudioObjectPropertyName);
    std::mutex mutex;
    std::vector<std::string> names;
    const RecordingListener listener(hal(), device, name, nullptr, [&] {
        // A listener may use all of the HAL, itself included.
        const RecordingListener nested(hal(), device, anyAddress);
        const std::scoped_lock lock(mutex);
        names.push_back(readText(hal(), device, name).value_or("(gone)"));
    });
    rig->rename(uid, "After");
    EXPECT_TRUE(eventually([&] {
        const std::scoped_lock lock(mutex);
        return !names.empty() && names.back() == "After";
    }));
}

TEST_F(Conformance, deliversOnTheQueueThatWasGiven)
{
    std::string uid;
    const AudioObjectID device = plugged("Queue", 0, 2, &uid);
    const auto queue = dxr::SerialQueue::initWithLabel("listener");
    std::atomic<int> onQueue{0};
    std::atomic<int> elsewhere{0};
    const RecordingListener listener(hal(), device, at(kAudioObjectPropertyName), queue,
                                     [&] { ++(queue->isCurrent() ? onQueue : elsewhere); });
    rig->rename(uid, "Renamed");
    EXPECT_TRUE(eventually([&] { return onQueue > 0; }));
    EXPECT_EQ(elsewhere, 0);
}

TEST_F(Conformance, takesAListenerOncePerAddressAndForgetsItOnce)
{
    const AudioObjectID device = plugged("Once", 0, 2);
    const HALListener listener{nullptr, nullptr, [](uint32_t, const AudioObjectPropertyAddress*) {}, nullptr};
    EXPECT_EQ(hal().addListener(device, anyAddress, listener), kAudioHardwareNoError);
    EXPECT_EQ(hal().addListener(device, anyAddress, listener), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(hal().addListener(device, at(kAudioObjectPropertyName), listener), kAudioHardwareNoError);
    EXPECT_EQ(hal().removeListener(device, anyAddress, listener), kAudioHardwareNoError);
    EXPECT_EQ(hal().removeListener(device, anyAddress, listener), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(hal().removeListener(device, at(kAudioObjectPropertyName), listener), kAudioHardwareNoError);
    EXPECT_EQ(hal().addListener(0xFFFFFFFF, anyAddress, listener), kAudioHardwareBadObjectError);
}

TEST_F(Conformance, forgetsTheListenerOfADeviceThatIsGone)
{
    std::string uid;
    const AudioObjectID device = plugged("Gone", 0, 2, &uid);
    RecordingListener listener(hal(), device, anyAddress);
    rig->unplug(uid);
    EXPECT_TRUE(eventually([&] { return readDevices(hal()).empty(); }));
    EXPECT_EQ(listener.remove(), kAudioHardwareNoError);
}

TEST_F(Conformance, waitsForARunningListenerBeforeItsRemovalReturns)
{
    std::string uid;
    const AudioObjectID device = plugged("Slow", 0, 2, &uid);
    std::promise<void> entered;
    std::promise<void> mayLeave;
    std::atomic<bool> left{false};
    std::once_flag first;
    RecordingListener listener(hal(), device, at(kAudioObjectPropertyName), nullptr, [&] {
        std::call_once(first, [&] {
            entered.set_value();
            mayLeave.get_future().wait();
            left = true;
        });
    });
    rig->rename(uid, "Renamed");
    entered.get_future().wait();
    bool leftBeforeRemoved = false;
    std::thread remover([&] {
        listener.remove();
        leftBeforeRemoved = left;
    });
    mayLeave.set_value();
    remover.join();
    EXPECT_TRUE(leftBeforeRemoved);
}

TEST_F(Conformance, letsAListenerRemoveItselfWithoutWaiting)
{
    std::string uid;
    const AudioObjectID device = plugged("Self", 0, 2, &uid);
    std::atomic<HALStatus> status{-1};
    HALListener listener;
    listener.block = [&](uint32_t, const AudioObjectPropertyAddress*) {
        status = hal().removeListener(device, anyAddress, listener);
    };
    ASSERT_EQ(hal().addListener(device, anyAddress, listener), kAudioHardwareNoError);
    rig->rename(uid, "Renamed");
    EXPECT_TRUE(eventually([&] { return status == kAudioHardwareNoError; }));
    listener.block = nullptr; // it holds this frame
}

// Changes storm while listeners are added and removed: after a removal has returned, nothing may be told any
// more.
TEST_F(Conformance, neverCallsAListenerAfterItsRemoval)
{
    std::string uid;
    const AudioObjectID device = plugged("Storm", 0, 2, &uid);
    std::atomic<bool> done{false};
    std::thread storm([&] {
        for (uint32_t i = 0; !done; ++i)
            writeValue(hal(), device, at(kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput), i % 2);
    });
    const auto queue = dxr::SerialQueue::initWithLabel("storm");
    for (int round = 0; round < 200; ++round) {
        auto isRemoved = std::make_shared<std::atomic<bool>>(false);
        const HALListener listener{
            nullptr, nullptr,
            [isRemoved](uint32_t, const AudioObjectPropertyAddress*) { EXPECT_FALSE(*isRemoved); },
            round % 2 == 0 ? CXRef<dxr::WorkQueue>(queue) : nullptr};
        ASSERT_EQ(hal().addListener(device, anyAddress, listener), kAudioHardwareNoError);
        std::this_thread::yield();
        ASSERT_EQ(hal().removeListener(device, anyAddress, listener), kAudioHardwareNoError);
        *isRemoved = true;
    }
    done = true;
    storm.join();
    queue->sync([] {}); // what was queued before has been dropped by now
}

} // namespace
