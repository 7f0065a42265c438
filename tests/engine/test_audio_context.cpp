// Cycles that the test makes itself, with lists and times as hardware might give them.

#include "DXRAudioContext.h"
#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "DrivenBackend.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace {

constexpr uint32_t frames = 64;

DrivenBackend& backend()
{
    static const CXRef<DrivenBackend> driven = [] {
        CXRef<DrivenBackend> made = DrivenBackend::init();
        HALSetBackend(made);
        return made;
    }();
    return *driven;
}

/// The lists of one cycle: two channels in each direction, of one stream each.
struct Cycle {
    explicit Cycle(double sampleTime, uint32_t frameCount = frames)
        : inputSamples(size_t{2} * frameCount),
          outputSamples(size_t{2} * frameCount), input{1, {{2, frameCount * 8, inputSamples.data()}}},
          output{1, {{2, frameCount * 8, outputSamples.data()}}}
    {
        for (AudioTimeStamp* time : {&now, &inputTime, &outputTime}) {
            time->sampleTime = sampleTime;
            time->flags = kAudioTimeStampSampleTimeValid;
        }
    }
    void run()
    {
        const AudioDeviceIOBlock callback = backend().callback; // may be replaced meanwhile
        callback(&now, &input, &inputTime, &output, &outputTime);
    }

    AudioTimeStamp now{}, inputTime{}, outputTime{};
    std::vector<float> inputSamples, outputSamples;
    AudioBufferList input, output;
};

class DXRAudioContextTest : public testing::Test {
protected:
    DXRAudioContextTest()
    {
        backend().sampleRate = 48000;
        backend().hardware->plug(aDevice().uid("duplex").inputs(2).outputs(2).bufferFrameSize(frames));
        settle();
        runner->addDevice(device(true), std::nullopt, [this](uint64_t time, DXRBuffer& buffer) {
            ++inputCalls;
            lastTime = time;
            lastFrames = buffer.frameCount();
            heard = buffer.samples()[0];
        });
        runner->addDevice(device(false), std::nullopt, [this](uint64_t time, DXRBuffer& buffer) {
            ++outputCalls;
            EXPECT_EQ(time, lastTime);
            std::fill_n(buffer.samples(), size_t{2} * buffer.frameCount(), heard);
        });
    }
    ~DXRAudioContextTest() override
    {
        runner->stop();
        backend().hardware->unplug("duplex");
        backend().callback = nullptr;
        settle();
    }

    static CXRef<DXRDevice> device(bool isInput)
    {
        return DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID("duplex", isInput);
    }
    void settle()
    {
        backend().hardware->settle();
        DXRDeviceManager::sharedDeviceManager();
        DXRDeviceManager::queue().sync([] {});
        backend().hardware->settle();
        runner->queue()->dispatchSync([] {});
    }

    const CXRef<DXRDeviceRunner> runner = (backend(), DXRDeviceRunner::init());
    uint64_t lastTime = 0;
    uint32_t inputCalls = 0, outputCalls = 0, lastFrames = 0;
    float heard = 0;
};

TEST_F(DXRAudioContextTest, skipsCyclesThatSayNothing)
{
    runner->start();
    Cycle untimed(0);
    untimed.now.flags = 0;
    untimed.run();
    for (const double time : {-1.0, 1e300, std::nan("")}) {
        Cycle impossible(time);
        impossible.run();
    }
    Cycle empty(0);
    empty.input.buffers[0].dataByteSize = empty.output.buffers[0].dataByteSize = 7; // less than a frame
    empty.run();
    Cycle absent(0);
    absent.inputTime.flags = absent.outputTime.flags = 0;
    absent.run();
    EXPECT_EQ(inputCalls, 0U);
    EXPECT_EQ(runner->sampleTime(), 0U);
    EXPECT_EQ(backend().registrations, 1U);
    Cycle(0).run();
    EXPECT_EQ(inputCalls, 1U);
}

TEST_F(DXRAudioContextTest, readsTheRateAtFirstAndWhenTimeGoesBack)
{
    runner->start();
    Cycle(1000).run();
    backend().sampleRate = 24000;
    Cycle(1064).run();
    EXPECT_EQ(runner->sampleTime(), 2 * frames) << "no look at the rate while time goes on";
    backend().sampleRate = 0;
    Cycle(500).run();
    EXPECT_EQ(inputCalls, 2U) << "a rate that cannot be read skips the cycle";
    backend().sampleRate = 1e-3;
    Cycle(564).run();
    EXPECT_EQ(inputCalls, 2U) << "as does one that is none";
    backend().sampleRate = 24000;
    Cycle(628).run();
    Cycle(692).run();
    EXPECT_GE(inputCalls, 5U) << "at half the rate the nodes run twice as often";
    EXPECT_EQ(lastFrames, frames);
}

TEST_F(DXRAudioContextTest, restartsForANewLayoutAndLeavesTheOldCallbackDeaf)
{
    runner->start();
    Cycle(0).run();
    const AudioDeviceIOBlock old = backend().callback;
    Cycle oneSided(64);
    oneSided.inputTime.flags = 0; // no input this time: as if it had no input channels
    oneSided.run();
    EXPECT_EQ(inputCalls, 1U);
    Cycle late(128);
    old(&late.now, &late.input, &late.inputTime, &late.output, &late.outputTime);
    EXPECT_EQ(inputCalls, 1U);
    settle();
    EXPECT_EQ(backend().registrations, 2U);
    Cycle(192).run();
    EXPECT_EQ(inputCalls, 2U);
    EXPECT_EQ(runner->sampleTime(), 2 * frames) << "time goes on";
    old(&late.now, &late.input, &late.inputTime, &late.output, &late.outputTime);
    EXPECT_EQ(inputCalls, 2U);
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
    const uint32_t callsAtStop = inputCalls;
    io.join();
    settle();
    EXPECT_EQ(inputCalls, callsAtStop);
    EXPECT_FALSE(runner->isRunning());
    runner->start();
    Cycle(128).run();
    EXPECT_EQ(inputCalls, callsAtStop + 1) << "and all is well again";
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
    EXPECT_EQ(inputCalls, 1U) << "that cycle is lost";
    Cycle(128).run();
    EXPECT_EQ(inputCalls, 2U);
}

TEST_F(DXRAudioContextTest, staysIdleWhenTheDeviceWillNotStart)
{
    backend().hardware->failStarts(kAudioHardwareUnspecifiedError);
    runner->start();
    EXPECT_TRUE(runner->isRunning());
    EXPECT_EQ(runner->frameCount(), 0U);
    Cycle(0).run();
    EXPECT_EQ(inputCalls, 0U);
    backend().hardware->failStarts(0);
    backend().hardware->unplug("duplex");
    settle();
    backend().hardware->plug(aDevice().uid("duplex").inputs(2).outputs(2).bufferFrameSize(frames));
    settle();
    EXPECT_EQ(runner->frameCount(), 512U) << "of the timer, which came first";
    Cycle(0).run();
    Cycle(64).run();
    EXPECT_EQ(runner->activeDevices().size(), 2U);
}

} // namespace
