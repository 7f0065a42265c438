#include "Conformance.h"

#include "SerialQueue.h"

#include <thread>

namespace {

/// Tests notifications by changes of a device's name.
class ConformanceRename : public Conformance {
protected:
    void SetUp() override
    {
        if (!rig->prepareNames())
            GTEST_SKIP() << "these devices keep their names";
    }
};

TEST_F(ConformanceRename, letsAListenerReadTheNewValueCallBackInAndRemoveItself)
{
    const auto queue = dxr::SerialQueue::initWithLabel("listener");
    for (const bool isOnQueue : {false, true}) {
        const AudioObjectID device = plugged("Before", 0, 2);
        const auto name = at(kAudioObjectPropertyName);
        std::atomic<bool> seen{false};
        std::atomic<int> elsewhere{0};
        std::atomic<HALStatus> removed{-1};
        RecordingListener listener(hal(), device, name, isOnQueue ? queue : nullptr, [&] {
            elsewhere += queue->isCurrent() != isOnQueue;
            // A listener may call every function of the HAL, including those for listeners.
            const RecordingListener nested(hal(), device, anyAddress);
            seen = readText(hal(), device, name) == "After";
            if (seen)
                removed = listener.remove();
        });
        rig->rename(uid, "After");
        EXPECT_TRUE(eventually([&] { return removed == kAudioHardwareNoError; }));
        EXPECT_EQ(elsewhere, 0);
    }
}

TEST_F(Conformance, takesAListenerOncePerAddressAndForgetsItOnce)
{
    const AudioObjectID device = plugged("Once", 0, 2);
    const auto name = at(kAudioObjectPropertyName);
    const HALListener listener{nullptr, nullptr, [](uint32_t, const AudioObjectPropertyAddress*) {}, nullptr};
    EXPECT_EQ(hal().addListener(device, anyAddress, listener), kAudioHardwareNoError);
    EXPECT_EQ(hal().addListener(device, anyAddress, listener), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(hal().addListener(device, name, listener), kAudioHardwareNoError);
    EXPECT_EQ(hal().removeListener(device, anyAddress, listener), kAudioHardwareNoError);
    EXPECT_EQ(hal().removeListener(device, anyAddress, listener), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(hal().addListener(0xFFFFFFFF, anyAddress, listener), kAudioHardwareBadObjectError);
    rig->unplug(uid);
    EXPECT_TRUE(eventually([&] { return readDevices(hal()).empty(); }));
    EXPECT_EQ(hal().removeListener(device, name, listener), kAudioHardwareNoError) << "the device is gone";
}

// Properties change continuously while listeners are added and removed. No listener may run after its removal
// has returned.
TEST_F(Conformance, neverCallsAListenerAfterItsRemoval)
{
    const AudioObjectID device = plugged("Storm", 0, 2);
    std::atomic<bool> done{false};
    std::thread storm([&] {
        for (uint32_t i = 0; !done; ++i)
            writeValue(hal(), device, at(kAudioDevicePropertyMute, output), i % 2);
    });
    const auto queue = dxr::SerialQueue::initWithLabel("storm");
    for (int round = 0; round < 200; ++round) {
        auto isRemoved = std::make_shared<std::atomic<bool>>(false);
        const auto body = [isRemoved](uint32_t, const AudioObjectPropertyAddress*) {
            sleepForMilliseconds(1); // so that the removal meets a running listener
            EXPECT_FALSE(*isRemoved);
        };
        const HALListener listener{nullptr, nullptr, body,
                                   round % 2 == 0 ? CXRef<dxr::WorkQueue>(queue) : nullptr};
        ASSERT_EQ(hal().addListener(device, anyAddress, listener), kAudioHardwareNoError);
        std::this_thread::yield();
        ASSERT_EQ(hal().removeListener(device, anyAddress, listener), kAudioHardwareNoError);
        *isRemoved = true;
    }
    done = true;
    storm.join();
    queue->sync([] {}); // all earlier jobs have run or been dropped
}

} // namespace
