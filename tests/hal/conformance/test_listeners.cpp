#include "Conformance.h"

#include "SerialQueue.h"

namespace {

TEST_F(Conformance, letsAListenerReadTheNewValueCallBackInAndRemoveItself)
{
    const auto queue = dxr::SerialQueue::initWithLabel("listener");
    const AudioObjectID device = plugged("Heard", 0, 2);
    const auto mute = at(kAudioDevicePropertyMute, output);
    EXPECT_TRUE(eventually([&] { // cards may be muted initially
        writeValue(hal(), device, mute, 0U);
        return readValue<uint32_t>(hal(), device, mute) == 0U;
    }));
    for (const bool isOnQueue : {true, false}) {
        const uint32_t value = isOnQueue ? 1 : 0;
        std::atomic<int> elsewhere{0};
        std::atomic<HALStatus> removed{-1};
        RecordingListener listener(hal(), device, mute, isOnQueue ? queue : nullptr, [&] {
            elsewhere += queue->isCurrent() != isOnQueue;
            // A listener may call every function of the HAL, including those for listeners.
            const RecordingListener nested(hal(), device, anyAddress);
            if (readValue<uint32_t>(hal(), device, mute) == value)
                removed = listener.remove();
        });
        EXPECT_EQ(writeValue(hal(), device, mute, value), kAudioHardwareNoError);
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
    const std::jthread storm([&](const std::stop_token& end) {
        for (uint32_t i = 0; !end.stop_requested(); ++i)
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
    queue->sync([] {}); // all earlier jobs have run or been dropped
}

} // namespace
