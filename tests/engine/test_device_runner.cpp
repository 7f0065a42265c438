#include "EngineComputer.h"
#include "ReasonOf.h"
#include "SerialQueue.h"

namespace {

using namespace std::chrono_literals;

class DXRDeviceRunnerTest : public EngineComputer {
protected:
    CXRef<DXRDevice> mic() { return device("headset", input); }
    CXRef<DXRDevice> phones() { return device("headset", output); }
};

TEST_F(DXRDeviceRunnerTest, keepsWhatIsInEffectApartFromWhatWasAskedFor)
{
    const auto expectInEffect = [this](uint32_t frames, double rate, const char* when) {
        EXPECT_EQ(runner->frameCount(), frames) << when;
        EXPECT_EQ(runner->sampleRate(), rate) << when;
    };
    constexpr uint32_t max = DXRDeviceRunner::maxFrames;
    plug(headset().bufferFrameSizeRange(max, max).bufferFrameSize(max));
    ASSERT_TRUE(runner->addDevice(phones(), std::nullopt, idle));
    runner->start();
    runner->start();
    expectInEffect(max, 48000, "the device's");
    EXPECT_FALSE(runner->setFrameCount(64) || runner->setSampleRate(44100) ||
                 runner->setConversionQuality(DXRConversionQuality::High));
    unplug("headset");
    plug(headset().bufferFrameSize(64).bufferFrameSizeRange(64, 64).sampleRate(44100).sampleRates({44100}));
    expectInEffect(max, 48000, "until it stops, over every context");
    runner->stop();
    runner->stop();
    expectInEffect(0, 0, "stopped");

    unplug("headset");
    plug(headset());
    EXPECT_TRUE(runner->setFrameCount(64) && runner->setSampleRate(96000) &&
                runner->setConversionQuality(DXRConversionQuality::High));
    EXPECT_EQ(runner->conversionQuality(), DXRConversionQuality::High);
    runner->start();
    const AudioObjectID deviceID = phones()->deviceID();
    EXPECT_EQ(readValue<uint32_t>(hal, deviceID, at(kAudioDevicePropertyBufferFrameSize)), 64U) << "asked";
    EXPECT_EQ(readValue<double>(hal, deviceID, at(kAudioDevicePropertyNominalSampleRate)), 96000) << "asked";
    runner->stop();
    expectInEffect(64, 96000, "as asked for");
    for (const double rate : {-48000.0, 1.0, 2e6, std::nan("")})
        EXPECT_FALSE(runner->setSampleRate(rate)) << rate;
    EXPECT_FALSE(runner->setFrameCount(max + 1));
    EXPECT_TRUE(runner->setFrameCount(max) && runner->setSampleRate(0.0));
}

TEST_F(DXRDeviceRunnerTest, publishesEveryChangeOnce)
{
    plug(headset());
    const auto notifierQueue = dxr::SerialQueue::initWithLabel("listener");
    int heard = 0;
    std::vector<std::string> seen;
    const auto observations = runner->kvo()->observe(
        runner->kvo()->observableKeys(), [&](const std::string& key, DXRKVOChange change) {
            if (change == DXRKVOChange::Did)
                return seen.push_back(key);
            const bool isOld = !runner->isRunning() && runner->frameCount() == 0 &&
                               runner->sampleRate() == 0 && runner->activeDevices().empty();
            EXPECT_TRUE(isOld || !seen.empty()) << "old values until they are announced";
        });
    runner->start();
    runner->stop();
    settle();
    EXPECT_EQ(std::ranges::count(seen, "devices"), 0) << "there have been none yet";
    seen.clear();
    runner->setNotifier(nullptr, [&] { heard += runner->queue()->isDispatchedOnCurrentThread() ? 1 : 100; });
    const auto expectHeard = [&](int times, const char* what) {
        notifierQueue->sync([] {});
        EXPECT_EQ(std::exchange(heard, 0), times) << what;
    };
    EXPECT_TRUE(runner->addDevice(phones(), Channels{1, 2}, idle));
    expectHeard(1, "a device is added");
    EXPECT_FALSE(runner->addDevice(phones(), Channels{1}, idle) ||
                 runner->addDevice(nullptr, std::nullopt, idle) ||
                 runner->addDevice(mic(), std::nullopt, nullptr));
    runner->removeDevice(mic());
    runner->stop();
    expectHeard(0, "nothing has changed");
    EXPECT_TRUE(runner->activeDevices().empty()) << "not while it is stopped";
    runner->start();
    expectHeard(1, "all that starting changes is one change");
    seen.clear();
    settle();
    EXPECT_EQ(seen, (std::vector<std::string>{"frameCount", "sampleRate", "devices", "activeDevices",
                                              "isRunning"}));
    hal.reconfigure("headset", [](auto& it) { it.noStreams(HALDirection::Output).outputs(1); });
    hal.stepCycles(1);
    EXPECT_TRUE(eventually([this] { return runner->counts().restarts > 0; }));
    runner->queue()->dispatchSync([] {});
    expectHeard(1, "a channel in use is lost");
    runner->setNotifier(notifierQueue, [&] { heard += notifierQueue->isCurrent() ? 1 : 100; });
    unplug("headset");
    expectHeard(1, "the device is gone");
    EXPECT_EQ(runner->devices(), Devices{phones()}) << "an absent device stays";
    runner->removeDevice(phones());
    expectHeard(1, "it is removed");
    EXPECT_TRUE(runner->devices().empty());
    runner->setNotifier(nullptr, nullptr);
}

TEST_F(DXRDeviceRunnerTest, reportsDevicesAndPropertiesOnItsQueue)
{
    int calls = 0;
    const auto isOnQueue = [this] { return runner->queue()->isDispatchedOnCurrentThread(); };
    const DXRDeviceRunner::DeviceNotifier notifier = [&](const Devices& connected, const auto&...) {
        calls += isOnQueue() && connected.size() == 2 ? 1 : 100;
    };
    runner->addDeviceNotifier(notifier);
    runner->addDeviceNotifier(notifier);
    plug(headset().volume(HALDirection::Output, 0.5F));
    EXPECT_EQ(calls, 1);
    runner->queue()->dispatchSync([&] { // while one call waits in the queue, no second is posted
        hal.unplug("headset");
        ManagedComputer::settle();
        runner->removeDeviceNotifier(notifier);
    });
    settle();
    EXPECT_EQ(calls, 1);

    const AudioObjectID deviceID = plug(headset().volume(HALDirection::Output, 0.5F));
    const auto volume = at(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput);
    const auto listener = runner->propertyListenerWithObjectID(
        deviceID, &volume, CXRef<CXObject>(runner),
        [&](const CXRef<CXObject>& target, const AudioObjectPropertyAddress* address) {
            calls += isOnQueue() && target == runner && *address == volume ? 1 : 100;
        });
    listener->start();
    writeValue(hal, deviceID, volume, 0.25F);
    settle();
    EXPECT_EQ(calls, 2);
}

TEST_F(DXRDeviceRunnerTest, assertsOnItsQueueWhereWaitingForItCouldNeverEnd)
{
    plug(headset());
    const std::function<void()> forbidden[] = {
        [&] { runner->setFrameCount(64); },
        [&] { runner->setSampleRate(48000); },
        [&] { runner->addDevice(phones(), std::nullopt, idle); },
        [&] { runner->removeDevice(phones()); },
        [&] { runner->start(); },
    };
    runner->queue()->dispatchSync([&] {
        for (const auto& call : forbidden)
            EXPECT_NE(reasonOf(call).find("![_queue isDispatchedOnCurrentThread]"), std::string::npos);
    });
    plug(aDevice().uid("shy").outputs(2).hidden());
    runner->start();
    settle();
    runner->queue()->dispatchSync([&] {
        EXPECT_TRUE(manager.deviceWithDeviceUID("shy", output)) << "the manager does not wait for this queue";
        runner->stop();
        EXPECT_TRUE(runner->isRunning()) << "later";
    });
    settle();
    EXPECT_FALSE(runner->isRunning());
}

// One cycle is late: the following ones catch up in whole cycles.
TEST_F(DXRDeviceRunnerTest, keepsCallingItsBlocksWithoutAnyDevice)
{
    constexpr uint32_t frames = 480;
    plug(headset());
    runner->setFrameCount(frames);
    runner->setSampleRate(48000);
    std::atomic<uint32_t> cycles{0}, wrong{0};
    uint64_t last = 0, lastHostTime = 0; // of the last block
    runner->addDevice(mic(), std::nullopt, [&](uint64_t time, DXRBuffer& buffer) {
        wrong += buffer.samples()[0] != 0 || time % frames != 0 || time <= last;
        buffer.samples()[0] = 1;
        lastHostTime = buffer.hostTime();
        last = time;
    });
    runner->addDevice(phones(), std::nullopt, [&](uint64_t time, DXRBuffer& buffer) {
        wrong += time != last || buffer.hostTime() - lastHostTime - 20'000'000 > 2;
        const CXRealtimeExemption exemption("a block that takes too long");
        if (++cycles == 10)
            std::this_thread::sleep_for(35ms);
    });
    unplug("headset");
    runner->start();
    EXPECT_TRUE(eventually([&] { return cycles >= 20; }));
    runner->queue()->dispatchSync([&] {
        EXPECT_EQ(runner->sampleTime(), last + frames);
        runner->stop();
    });
    EXPECT_EQ(wrong, 0U);
    settle();
    const uint32_t after = cycles;
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(cycles, after) << "no call after stop";
    EXPECT_GT(last, after * frames) << "the late cycle's time was skipped";
}

} // namespace
