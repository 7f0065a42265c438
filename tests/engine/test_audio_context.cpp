// Cycles that the test makes itself, with lists and times as hardware might give them.

#include "DXRAudioContext.h"
#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "DrivenHardware.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace {

constexpr uint32_t frames = 64;

DrivenHardware& backend()
{
    static const CXRef<DrivenHardware> driven = [] {
        CXRef<DrivenHardware> made = DrivenHardware::init();
        HALSetHardwareDriver(made);
        return made;
    }();
    return *driven;
}

/// One cycle of two channels in each direction.
struct Cycle {
    explicit Cycle(double sampleTime, uint32_t byteSize = frames * 8)
        : input{1, {{2, byteSize, samples}}}, output{1, {{2, byteSize, samples + 2 * frames}}}
    {
        for (AudioTimeStamp* time : {&now, &inputTime, &outputTime}) {
            time->sampleTime = sampleTime;
            time->flags = kAudioTimeStampSampleTimeValid;
        }
    }
    void run(const AudioDeviceIOBlock& callback = AudioDeviceIOBlock(backend().callback))
    {
        callback(&now, &input, &inputTime, &output, &outputTime);
    }

    AudioTimeStamp now{}, inputTime{}, outputTime{};
    float samples[4 * frames] = {};
    AudioBufferList input, output;
};

class DXRAudioContextTest : public testing::Test {
protected:
    DXRAudioContextTest()
    {
        backend().sampleRate = 48000;
        plug();
        runner->addDevice(device(true), std::nullopt, [this](uint64_t time, DXRBuffer& buffer) {
            ++calls;
            lastTime = time;
            lastFrames = buffer.frameCount();
        });
        runner->addDevice(device(false), std::nullopt,
                          [this](uint64_t time, DXRBuffer&) { EXPECT_EQ(time, lastTime); });
    }
    ~DXRAudioContextTest() override
    {
        runner->stop();
        unplug();
        backend().callback = nullptr;
    }

    static CXRef<DXRDevice> device(bool isInput)
    {
        return DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID("duplex", isInput);
    }
    void plug()
    {
        backend().plug(aDevice().uid("duplex").inputs(2).outputs(2).bufferFrameSize(frames));
        settle();
    }
    void unplug()
    {
        backend().unplug("duplex");
        settle();
    }
    void settle()
    {
        backend().settle();
        DXRDeviceManager::sharedDeviceManager();
        DXRDeviceManager::queue().sync([] {});
        backend().settle();
        runner->queue()->dispatchSync([] {});
    }

    const CXRef<DXRDeviceRunner> runner = (backend(), DXRDeviceRunner::init());
    uint64_t lastTime = 0;
    uint32_t calls = 0, lastFrames = 0;
};

TEST_F(DXRAudioContextTest, skipsCyclesThatSayNothing)
{
    runner->start();
    for (const double time : {-1.0, 1e300, std::nan("")})
        Cycle(time).run();
    Cycle(0, 7).run(); // less than a frame
    Cycle untimed(0), absent(0);
    untimed.now.flags = absent.inputTime.flags = absent.outputTime.flags = 0;
    untimed.run();
    absent.run();
    EXPECT_EQ(calls, 0U);
    EXPECT_EQ(runner->sampleTime(), 0U);
    EXPECT_EQ(backend().starts, 1U);
    Cycle(0).run();
    EXPECT_EQ(calls, 1U);
}

TEST_F(DXRAudioContextTest, readsTheRateAtFirstAndWhenTimeGoesBack)
{
    runner->start();
    Cycle(1000).run();
    backend().sampleRate = 24000;
    Cycle(1064).run();
    EXPECT_EQ(runner->sampleTime(), 2 * frames) << "no look at the rate while time goes on";
    for (const double rate : {0.0, 1e-3}) { // not to be read, and none
        backend().sampleRate = rate;
        Cycle(500).run();
        EXPECT_EQ(calls, 2U) << rate;
    }
    backend().sampleRate = 24000;
    Cycle(628).run();
    Cycle(692).run();
    EXPECT_GE(calls, 5U) << "at half the rate the nodes run twice as often";
    EXPECT_EQ(lastFrames, frames);
}

TEST_F(DXRAudioContextTest, restartsForANewLayoutAndLeavesTheOldCallbackDeaf)
{
    const uint32_t registrations = backend().starts;
    runner->start();
    Cycle(0).run();
    const AudioDeviceIOBlock old = backend().callback;
    Cycle oneSided(64);
    oneSided.inputTime.flags = 0; // no input this time: as if it had no input channels
    oneSided.run();
    Cycle(128).run(old);
    EXPECT_EQ(calls, 1U);
    settle();
    EXPECT_EQ(backend().starts, registrations + 2);
    Cycle(192).run();
    EXPECT_EQ(calls, 2U);
    EXPECT_EQ(runner->sampleTime(), 2 * frames) << "time goes on";
    Cycle(256).run(old);
    EXPECT_EQ(calls, 2U);
}

// A cycle finds the queue busy with what stops it: it must neither run afterwards nor hold anybody up, nor be held up.
TEST_F(DXRAudioContextTest, letsAStopGoFirst)
{
    runner->start();
    Cycle(0).run();
    std::promise<void> entered, leave;
    runner->queue()->dispatchAsync([&] {
        entered.set_value();
        leave.get_future().wait();
    });
    entered.get_future().wait();
    std::thread stopping([&] { runner->stop(); }); // waits in line
    std::thread io([] { Cycle(64).run(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    leave.set_value();
    stopping.join();
    const uint32_t callsAtStop = calls;
    io.join();
    settle();
    EXPECT_EQ(calls, callsAtStop);
    runner->start();
    Cycle(128).run();
    EXPECT_EQ(calls, callsAtStop + 1) << "and all is well again";
}

// Work of the queue that waits for a cycle which waits for the queue: without an end to its patience, both for ever.
TEST_F(DXRAudioContextTest, givesACycleUpRatherThanWaitInACircle)
{
    runner->start();
    Cycle(0).run();
    std::promise<void> entered;
    runner->queue()->dispatchAsync([&] {
        entered.set_value();
        std::thread([] { Cycle(64).run(); }).join();
    });
    entered.get_future().wait();
    settle();
    EXPECT_EQ(calls, 1U) << "that cycle is lost";
    Cycle(128).run();
    EXPECT_EQ(calls, 2U);
}

TEST_F(DXRAudioContextTest, staysIdleWhenTheDeviceWillNotStart)
{
    backend().startStatus = (kAudioHardwareUnspecifiedError);
    runner->start();
    EXPECT_TRUE(runner->isRunning());
    EXPECT_EQ(runner->frameCount(), 0U);
    Cycle(0).run();
    EXPECT_EQ(calls, 0U);
    backend().startStatus = (0);
    unplug();
    plug();
    EXPECT_EQ(runner->frameCount(), 512U) << "of the timer, which came first";
    Cycle(0).run();
    Cycle(64).run();
    EXPECT_EQ(runner->activeDevices().size(), 2U);
}

} // namespace
