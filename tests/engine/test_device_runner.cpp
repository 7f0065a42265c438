#include "CXDispatchTimer.h"
#include "CXException.h"
#include "CapturedLog.h"
#include "DXRAudioTimerContext.h"
#include "EngineComputer.h"
#include "RunnerIO.h"
#include "SerialQueue.h"

#include <functional>
#include <future>

namespace {

const DXRIOBlock idle = [](uint64_t, DXRBuffer&) {};

class DXRDeviceRunnerTest : public EngineComputer {
protected:
    static SimulatedDeviceBuilder headset()
    {
        return aDevice().uid("headset").name("Headset").inputs(1).outputs(2);
    }
    CXRef<DXRDevice> mic() { return device("headset", input); }
    CXRef<DXRDevice> phones() { return device("headset", output); }
};

std::string reasonOf(const std::function<void()>& body)
{
    try {
        body();
    } catch (const CXException& exception) {
        return exception.reason().value_or("");
    }
    return "(none)";
}

TEST_F(DXRDeviceRunnerTest, keepsWhatIsInEffectApartFromWhatWasAskedFor)
{
    plugged(headset());
    ASSERT_TRUE(runner->addDevice(phones(), std::nullopt, idle));
    runner->start();
    runner->start();
    EXPECT_EQ(runner->frameCount(), 512U) << "the device's";
    EXPECT_EQ(runner->sampleRate(), 48000.0);
    EXPECT_FALSE(runner->setFrameCount(64));
    EXPECT_FALSE(runner->setSampleRate(44100));
    runner->stop();
    runner->stop();
    EXPECT_EQ(runner->frameCount(), 0U);
    EXPECT_EQ(runner->sampleRate(), 0.0);

    EXPECT_TRUE(runner->setFrameCount(64));
    EXPECT_TRUE(runner->setSampleRate(96000));
    runner->start();
    EXPECT_EQ(readValue<uint32_t>(hal, phones()->deviceID(), at(kAudioDevicePropertyBufferFrameSize)), 64U)
        << "the device was asked to follow";
    EXPECT_EQ(readValue<double>(hal, phones()->deviceID(), at(kAudioDevicePropertyNominalSampleRate)), 96000);
    runner->stop();
    EXPECT_EQ(runner->frameCount(), 64U);
    for (const double rate : {-48000.0, 1.0, 2e6, std::nan("")})
        EXPECT_FALSE(runner->setSampleRate(rate)) << rate;
    EXPECT_FALSE(runner->setFrameCount(UINT32_MAX));
    EXPECT_TRUE(runner->setSampleRate(0.0));
}

TEST_F(DXRDeviceRunnerTest, tellsOfEveryChangeOnceAndOfNoneTwice)
{
    plugged(headset());
    const auto notifierQueue = platform::SerialQueue::initWithLabel("listener");
    int heard = 0, heardThere = 0;
    std::vector<std::string> seen;
    const auto observations = runner->kvo()->observe(
        runner->kvo()->observableKeys(), [&](const std::string& key, DXRKVOChange change) {
            if (change == DXRKVOChange::Will)
                EXPECT_FALSE(key == "isRunning" && runner->isRunning())
                    << "the old value until it is announced";
            else
                seen.push_back(key);
        });
    settleEngine();
    seen.clear();
    runner->setNotifier(nullptr, [&] { heard += runner->queue()->isDispatchedOnCurrentThread() ? 1 : 100; });
    EXPECT_TRUE(runner->addDevice(phones(), std::nullopt, idle));
    EXPECT_EQ(heard, 1);
    EXPECT_FALSE(runner->addDevice(phones(), Channels{1}, idle));
    EXPECT_FALSE(runner->addDevice(nullptr, std::nullopt, idle));
    EXPECT_FALSE(runner->addDevice(mic(), std::nullopt, nullptr));
    runner->removeDevice(nullptr);
    runner->removeDevice(mic());
    runner->stop();
    EXPECT_EQ(heard, 1) << "nothing changed";
    EXPECT_TRUE(runner->activeDevices().empty()) << "not while it is stopped";
    runner->start();
    EXPECT_EQ(heard, 2) << "all that starting changes is one change";
    settleEngine();
    EXPECT_EQ(seen, (std::vector<std::string>{"frameCount", "sampleRate", "devices", "activeDevices",
                                              "isRunning"}));
    runner->setNotifier(notifierQueue, [&] { heardThere += notifierQueue->isCurrent() ? 1 : 100; });
    unplugged("headset");
    notifierQueue->sync([] {});
    EXPECT_EQ(heardThere, 1);
    EXPECT_EQ(heard, 2);
    EXPECT_EQ(runner->devices(), Devices{phones()}) << "an absent device stays";
    runner->removeDevice(phones());
    EXPECT_TRUE(runner->devices().empty());
    runner->setNotifier(nullptr, nullptr);
    notifierQueue->sync([] {}); // it was told once more
}

TEST_F(DXRDeviceRunnerTest, restartsForItsOwnDevicesOnly)
{
    plugged(headset());
    runner->addDevice(phones(), std::nullopt, idle);
    runner->start();
    hal.stepCycles(5);
    EXPECT_EQ(runner->sampleTime(), 5U * 512);
    uint32_t starts = 0;
    hal.beforeRead(kAudioDevicePropertyBufferFrameSize, 1, [&] { ++starts; }); // which a start asks for
    plugged(aDevice().uid("other").outputs(2));
    unplugged("other");
    EXPECT_EQ(starts, 0U);
    unplugged("headset");
    EXPECT_TRUE(runner->activeDevices().empty());
    plugged(headset());
    EXPECT_EQ(runner->activeDevices(), Devices{phones()});
    const uint64_t back = runner->sampleTime();
    EXPECT_GE(back, 5U * 512);
    hal.stepCycles(1);
    EXPECT_EQ(runner->sampleTime(), back + 512);
    runner->stop();
    EXPECT_EQ(runner->sampleTime(), 0U);
}

TEST_F(DXRDeviceRunnerTest, tellsDeviceNotifiersOnItsQueueUntilTheyAreRemoved)
{
    int calls = 0;
    const DXRDeviceRunner::DeviceNotifier notifier = [&](const Devices& connected, const Devices&,
                                                         const Devices& updated) {
        EXPECT_TRUE(runner->queue()->isDispatchedOnCurrentThread());
        EXPECT_TRUE(std::ranges::includes(updated, connected));
        ++calls;
    };
    runner->addDeviceNotifier(notifier);
    runner->addDeviceNotifier(notifier);
    plugged(headset());
    EXPECT_EQ(calls, 1);
    // Removed while a call waits in the queue: it is not made.
    std::promise<void> entered, leave;
    runner->queue()->dispatchAsync([&] {
        entered.set_value();
        leave.get_future().wait();
        runner->removeDeviceNotifier(notifier);
    });
    entered.get_future().wait();
    hal.unplug("headset");
    settle();
    leave.set_value();
    settleEngine();
    EXPECT_EQ(calls, 1);
}

TEST_F(DXRDeviceRunnerTest, listensToPropertiesOnItsQueue)
{
    const AudioObjectID deviceID = plug(headset().volume(HALDirection::Output, 0.5F));
    AudioObjectPropertyAddress seen{};
    CXRef<CXObject> target = CXDispatchTimer::init();
    const auto volume = at(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput);
    const auto listener = runner->propertyListenerWithObjectID(
        deviceID, &volume, target,
        [&](const CXRef<CXObject>& given, const AudioObjectPropertyAddress* address) {
            EXPECT_TRUE(runner->queue()->isDispatchedOnCurrentThread());
            EXPECT_EQ(given, target);
            seen = *address;
        });
    listener->start();
    writeValue(hal, deviceID, volume, 0.25F);
    settleEngine();
    EXPECT_EQ(seen, volume);
    seen = {};
    target = nullptr;
    writeValue(hal, deviceID, volume, 0.75F);
    settleEngine();
    EXPECT_EQ(seen, AudioObjectPropertyAddress{}) << "its target is gone";
}

TEST_F(DXRDeviceRunnerTest, assertsWhereWaitingForItsQueueCouldNeverEnd)
{
    plugged(headset());
    const std::function<void()> forbidden[] = {
        [&] { runner->setFrameCount(64); },
        [&] { runner->setSampleRate(48000); },
        [&] { runner->addDevice(phones(), std::nullopt, idle); },
        [&] { runner->removeDevice(phones()); },
        [&] { runner->start(); },
    };
    runner->queue()->dispatchSync([&] {
        for (const auto& call : forbidden) {
            const std::string reason = reasonOf(call);
            EXPECT_NE(reason.find("![_queue isDispatchedOnCurrentThread]"), std::string::npos) << reason;
            EXPECT_NE(reason.find("DXRDeviceRunner"), std::string::npos) << reason;
        }
        EXPECT_TRUE(runner->devices().empty());
        EXPECT_TRUE(runner->activeDevices().empty());
    });
    runner->start();
    runner->queue()->dispatchSync([&] {
        runner->stop();
        EXPECT_TRUE(runner->isRunning()) << "later";
    });
    settleEngine();
    EXPECT_FALSE(runner->isRunning());
    const DXRDeviceNodes nodes;
    RunnerIO io(runner->queue());
    const CXRef<DXRAudioContext> context = DXRAudioTimerContext::initWithIO(io, nullptr, nodes);
    EXPECT_NE(reasonOf([&] { context->start(); }).find("[_queue isDispatchedOnCurrentThread]"),
              std::string::npos);
    runner->queue()->dispatchSync([&] {
        context->start();
        EXPECT_NE(reasonOf([&] { context->start(); }).find("_timer == nil"), std::string::npos);
        context->stop();
    });
}

// The timer counts real time, so the bounds are wide: it must keep pace with the clock, in whole cycles.
TEST_F(DXRDeviceRunnerTest, keepsCallingItsBlocksWithoutAnyDevice)
{
    constexpr uint32_t frames = 480;
    plugged(headset());
    runner->setFrameCount(frames);
    runner->setSampleRate(48000);
    std::atomic<uint32_t> cycles{0};
    std::atomic<bool> isWrong{false};
    std::atomic<uint64_t> last{0};
    runner->addDevice(mic(), std::nullopt, [&](uint64_t time, DXRBuffer& buffer) {
        const bool isSilent = std::all_of(buffer.samples(), buffer.samples() + frames * buffer.channelCount(),
                                          [](float x) { return x == 0; });
        isWrong = isWrong || !isSilent || time % frames != 0 || time <= last;
        buffer.samples()[0] = 1;
        last = time;
    });
    runner->addDevice(phones(), std::nullopt, [&](uint64_t time, DXRBuffer&) {
        isWrong = isWrong || time != last;
        // Late once, when a second has passed and a gap is worth a line in the log.
        for (const auto end =
                 std::chrono::steady_clock::now() + std::chrono::milliseconds(cycles == 105 ? 35 : 0);
             std::chrono::steady_clock::now() < end;) {
        }
        ++cycles;
    });
    unplugged("headset");
    const CapturedLog log;
    const auto begin = std::chrono::steady_clock::now();
    runner->start();
    while (cycles < 120)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    uint64_t time = 0;
    runner->queue()->dispatchSync([&] {
        time = runner->sampleTime();
        EXPECT_EQ(time, last + frames);
        runner->stop();
    });
    EXPECT_FALSE(isWrong);
    EXPECT_NEAR(static_cast<double>(time), taken.count() * 48000, 4800);
    settleEngine();
    const uint32_t after = cycles;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(cycles, after) << "no call after stop";
    ASSERT_FALSE(log.lines().empty());
    unsigned long long expected = 0, cycle = 0, expectedAgain = 0, now = 0;
    long long late = 0, lateNow = 0;
    EXPECT_EQ(std::sscanf(log.lines()[0].c_str(),
                          "<DXRAudioTimerContext: %*[^>]>: Timer clock discontinuity: %llu -> %llu (%lld), "
                          "%llu -> %llu (%lld)",
                          &expected, &cycle, &late, &expectedAgain, &now, &lateNow),
              6)
        << log.lines()[0];
    EXPECT_GE(late, 2 * frames);
    EXPECT_TRUE(cycle == expected + static_cast<uint64_t>(late) && expectedAgain == expected &&
                now - now % frames == cycle && now == expected + static_cast<uint64_t>(lateNow))
        << log.lines()[0];
}

} // namespace
