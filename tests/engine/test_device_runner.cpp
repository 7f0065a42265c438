#include "CapturedLog.h"
#include "DXRAudioTimerContext.h"
#include "EngineComputer.h"
#include "ReasonOf.h"
#include "RunnerIO.h"
#include "SerialQueue.h"

#include <functional>
#include <future>

namespace {

using namespace std::chrono_literals;

class DXRDeviceRunnerTest : public EngineComputer {
protected:
    static SimulatedDeviceBuilder headset()
    {
        return aDevice().uid("headset").name("Headset").inputs(1).outputs(2);
    }
    CXRef<DXRDevice> mic() { return device("headset", input); }
    CXRef<DXRDevice> phones() { return device("headset", output); }
};

TEST_F(DXRDeviceRunnerTest, keepsWhatIsInEffectApartFromWhatWasAskedFor)
{
    plug(headset().bufferFrameSize(256));
    ASSERT_TRUE(runner->addDevice(phones(), std::nullopt, idle));
    runner->start();
    runner->start();
    EXPECT_EQ(runner->frameCount(), 256U) << "the device's";
    EXPECT_EQ(runner->sampleRate(), 48000.0);
    EXPECT_FALSE(runner->setFrameCount(64));
    EXPECT_FALSE(runner->setSampleRate(44100));
    EXPECT_FALSE(runner->setConversionQuality(DXRConversionQuality::High));
    unplug("headset");
    plug(headset().bufferFrameSize(64).bufferFrameSizeRange(64, 64).sampleRate(44100).sampleRates({44100}));
    EXPECT_EQ(runner->frameCount(), 256U) << "until it stops, over every context";
    EXPECT_EQ(runner->sampleRate(), 48000.0);
    runner->stop();
    runner->stop();
    EXPECT_EQ(runner->frameCount(), 0U);
    EXPECT_EQ(runner->sampleRate(), 0.0);

    unplug("headset");
    constexpr uint32_t max = DXRDeviceRunner::maxFrames;
    plug(headset().bufferFrameSizeRange(max, max).bufferFrameSize(max));
    runner->start();
    EXPECT_EQ(runner->frameCount(), max);
    runner->stop();
    unplug("headset");
    plug(headset());
    EXPECT_TRUE(runner->setFrameCount(64));
    EXPECT_TRUE(runner->setSampleRate(96000));
    EXPECT_TRUE(runner->setConversionQuality(DXRConversionQuality::High));
    EXPECT_EQ(runner->conversionQuality(), DXRConversionQuality::High);
    runner->start();
    EXPECT_EQ(readValue<uint32_t>(hal, phones()->deviceID(), at(kAudioDevicePropertyBufferFrameSize)), 64U)
        << "the device was asked to follow";
    EXPECT_EQ(readValue<double>(hal, phones()->deviceID(), at(kAudioDevicePropertyNominalSampleRate)), 96000);
    runner->stop();
    EXPECT_EQ(runner->frameCount(), 64U);
    for (const double rate : {-48000.0, 1.0, 2e6, std::nan("")})
        EXPECT_FALSE(runner->setSampleRate(rate)) << rate;
    EXPECT_FALSE(runner->setFrameCount(DXRDeviceRunner::maxFrames + 1));
    EXPECT_TRUE(runner->setFrameCount(DXRDeviceRunner::maxFrames));
    EXPECT_TRUE(runner->setSampleRate(0.0));
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
        EXPECT_EQ(std::exchange(heard, 0), times) << what;
    };
    EXPECT_TRUE(runner->addDevice(phones(), Channels{1, 2}, idle));
    expectHeard(1, "a device is added");
    EXPECT_FALSE(runner->addDevice(phones(), Channels{1}, idle));
    EXPECT_FALSE(runner->addDevice(nullptr, std::nullopt, idle));
    EXPECT_FALSE(runner->addDevice(mic(), std::nullopt, nullptr));
    runner->removeDevice(nullptr);
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
    notifierQueue->sync([] {});
    expectHeard(1, "the device is gone");
    EXPECT_EQ(runner->devices(), Devices{phones()}) << "an absent device stays";
    runner->removeDevice(phones());
    notifierQueue->sync([] {});
    expectHeard(1, "it is removed");
    EXPECT_TRUE(runner->devices().empty());
    runner->setNotifier(nullptr, nullptr);
}

TEST_F(DXRDeviceRunnerTest, callsDeviceNotifiersOnItsQueueUntilTheyAreRemoved)
{
    int calls = 0;
    const DXRDeviceRunner::DeviceNotifier notifier = [&](const Devices& connected, const auto&...) {
        calls += runner->queue()->isDispatchedOnCurrentThread() && connected.size() == 2 ? 1 : 100;
    };
    runner->addDeviceNotifier(notifier);
    runner->addDeviceNotifier(notifier);
    plug(headset());
    EXPECT_EQ(calls, 1);
    runner->queue()->dispatchSync([&] { // while one call waits in the queue, no second is posted
        hal.unplug("headset");
        ManagedComputer::settle();
        runner->removeDeviceNotifier(notifier);
    });
    settle();
    EXPECT_EQ(calls, 1);
}

TEST_F(DXRDeviceRunnerTest, listensToPropertiesOnItsQueue)
{
    const AudioObjectID deviceID = plug(headset().volume(HALDirection::Output, 0.5F));
    AudioObjectPropertyAddress seen{};
    const CXRef<CXObject> target = runner->kvo();
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
    settle();
    EXPECT_EQ(seen, volume);
}

TEST_F(DXRDeviceRunnerTest, assertsWhereWaitingForItsQueueCouldNeverEnd)
{
    plug(headset());
    const DXRDeviceNodes nodes;
    RunnerIO io(runner->queue());
    const CXRef<DXRAudioContext> context = DXRAudioTimerContext::initWithIO(io, nullptr, nodes);
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
        context->start();
        EXPECT_NE(reasonOf([&] { context->start(); }).find("_timer == nil"), std::string::npos);
        context->stop();
    });
    EXPECT_NE(reasonOf([&] { context->start(); }).find("[_queue isDispatchedOnCurrentThread]"),
              std::string::npos);
    runner->start();
    runner->queue()->dispatchSync([&] {
        runner->stop();
        EXPECT_TRUE(runner->isRunning()) << "later";
    });
    settle();
    EXPECT_FALSE(runner->isRunning());
}

// Cycles are late in the first second and after it: only these are logged, and blocks catch up in whole
// cycles.
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
        const uint32_t cycle = ++cycles;
        for (const auto end = std::chrono::steady_clock::now() + (cycle == 10 || cycle == 105 ? 35ms : 0ms);
             std::chrono::steady_clock::now() < end;) {
        }
    });
    unplug("headset");
    const CXRef<DXRCycleTrace> trace = DXRCycleTrace::init();
    ASSERT_TRUE(runner->setCycleTrace(trace));
    const CapturedLog log;
    runner->start();
    EXPECT_TRUE(eventually([&] { return cycles >= 110; }));
    runner->queue()->dispatchSync([&] {
        EXPECT_EQ(runner->sampleTime(), last + frames);
        runner->stop();
    });
    EXPECT_EQ(wrong, 0U);
    settle();
    const uint32_t after = cycles;
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(cycles, after) << "no call after stop";
    std::vector<DXRCycleRecord> records(200);
    ASSERT_GT(trace->read(records), 100U);
    for (const DXRCycleRecord& each : std::span(records).subspan(1, 100)) {
        EXPECT_EQ(each.frameCount, frames);
        EXPECT_EQ(each.runnerFrameCount, frames);
        EXPECT_EQ(each.sampleTime, each.deviceSampleTime);
        EXPECT_NEAR(static_cast<double>(each.deadlineTicks - each.dueTicks), 1e7, 2);
        EXPECT_TRUE(each.dueTicks <= each.beginTicks && each.beginTicks <= each.blocksBeginTicks);
    }
    ASSERT_FALSE(log.lines().empty());
    for (const std::string& line : log.lines()) {
        unsigned long long expected = 0, cycle = 0, again = 0, now = 0;
        long long late = 0, lateNow = 0;
        EXPECT_EQ(std::sscanf(line.c_str(),
                              "<DXRAudioTimerContext: %*[^>]>: Timer clock discontinuity: "
                              "%llu -> %llu (%lld), %llu -> %llu (%lld)",
                              &expected, &cycle, &late, &again, &now, &lateNow),
                  6)
            << line;
        EXPECT_GT(expected, 48000U) << "not in the first second";
        EXPECT_TRUE(late > 0 && cycle == expected + static_cast<uint64_t>(late) && again == expected &&
                    now - now % frames == cycle && now == expected + static_cast<uint64_t>(lateNow))
            << line;
    }
}

} // namespace
