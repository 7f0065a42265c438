// Runs cycles from the test, with buffer lists and times as hardware might deliver them.

#include "DXRAudioContext.h"
#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "DrivenHardware.h"
#include "Eventually.h"
#include "Gate.h"
#include "HALReads.h"
#include "HostClock.h"
#include "RunnerIO.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr uint32_t frames = 64;

DrivenHardware& backend()
{
    static const auto only = installed(DrivenHardware::init());
    return *only;
}

/// One cycle with two channels in each direction.
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
        backend().plug(aDevice().uid("duplex").inputs(2).outputs(2).bufferFrameSize(frames));
        settle();
        runner->addDevice(device(true), std::nullopt, [this](uint64_t time, DXRBuffer& buffer) {
            ++calls;
            lastTime = time;
            EXPECT_EQ(buffer.frameCount(), frames);
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
    void unplug()
    {
        backend().unplug("duplex");
        settle();
    }
    /// Returns whether `act` takes less than half of a cycle's time limit, at least once in ten tries: the
    /// machine may be busy.
    static bool isPrompt(const std::function<void()>& act)
    {
        for (int tries = 0; tries < 10; ++tries) {
            const auto begin = std::chrono::steady_clock::now();
            act();
            if (std::chrono::steady_clock::now() - begin < 250ms)
                return true;
        }
        return false;
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
    uint32_t calls = 0;
};

TEST_F(DXRAudioContextTest, skipsCyclesThatSayNothing)
{
    runner->start();
    for (const double time : {-1.0, 1e300, std::nan("")})
        Cycle(time).run();
    Cycle(0, 7).run(); // less than one frame
    Cycle untimed(0), absent(0);
    untimed.now.flags = absent.inputTime.flags = absent.outputTime.flags = 0;
    untimed.run();
    absent.run();
    EXPECT_EQ(calls + runner->sampleTime(), 0U);
    EXPECT_EQ(backend().starts, 1U);
    Cycle(0).run();
    EXPECT_EQ(calls, 1U);
}

TEST_F(DXRAudioContextTest, readsTheRateAtFirstAndWhenTimeGoesBack)
{
    runner->start();
    const std::tuple<double, double, uint32_t> cycles[] = {
        // sample time, rate, calls
        {1000, 48000, 1}, {1064, 24000, 2}, // no look at the rate while time goes on
        {500, 0, 2},      {500, 1e-3, 2},   // unreadable, and too low to be a rate
        {500, 24000, 4},  {564, 24000, 6},  // at half the rate the nodes run twice as often
    };
    for (const auto& [sampleTime, rate, callsAfter] : cycles) {
        backend().sampleRate = rate;
        Cycle(sampleTime).run();
        EXPECT_EQ(calls, callsAfter) << sampleTime << " at " << rate;
        EXPECT_EQ(runner->latencies().empty(), rate < 1) << "unknown without a rate";
    }
}

// The new layout has the same number of channels, in other streams.
TEST_F(DXRAudioContextTest, restartsForANewLayoutAndLeavesTheOldCallbackDeaf)
{
    Cycle cycle(64);
    struct {
        uint32_t count;
        AudioBuffer buffers[2];
    } split{2, {{1, frames * 4, cycle.samples}, {1, frames * 4, cycle.samples + frames}}};
    runner->start();
    const uint32_t starts = backend().starts;
    Cycle(0).run();
    const AudioDeviceIOBlock old = backend().callback;
    old(&cycle.now, reinterpret_cast<const AudioBufferList*>(&split), &cycle.inputTime, &cycle.output,
        &cycle.outputTime);
    EXPECT_EQ(calls, 1U);
    // A restart first waits on another thread for the end of the old callback.
    EXPECT_TRUE(eventually([this] { return runner->counts().restarts > 0; }));
    settle();
    EXPECT_EQ(backend().starts, starts + 1);
    Cycle(192).run();
    EXPECT_EQ(runner->sampleTime(), 2 * frames) << "time goes on";
    Cycle(256).run(old);
    EXPECT_EQ(calls, 2U);
}

TEST_F(DXRAudioContextTest, waitsForItsTurnWhileTheQueueIsBusyButNotInACircle)
{
    runner->start();
    uint32_t expected = 0;
    EXPECT_TRUE(isPrompt([&] {
        Gate gate(*runner->queue());
        std::jthread io([&] { Cycle(64.0 * ++expected).run(); });
        std::this_thread::sleep_for(20ms);
        gate.open();
    }));
    EXPECT_EQ(calls, expected);
    // Work of the queue waits for a cycle that waits for the queue.
    runner->queue()->dispatchSync([] { std::thread([] { Cycle(10'000).run(); }).join(); });
    settle();
    EXPECT_EQ(calls, expected) << "that cycle is lost";
    Cycle(20'000).run();
    EXPECT_EQ(calls, expected + 1);
}

// A cycle that waits for the queue does not delay a stop on that queue, and the stop does not wait for it.
TEST_F(DXRAudioContextTest, callsAWaitingCycleAwayWhenItStops)
{
    RunnerIO io(runner->queue());
    const DXRDeviceNodes nodes{{{DXRDeviceNode::nodeWithDevice(device(true), std::nullopt,
                                                               [this](uint64_t, DXRBuffer&) { ++calls; })}}};
    EXPECT_TRUE(isPrompt([&] {
        io.queue->dispatchSync([&] {
            const auto context = DXRAudioContext::initWithIO(io, nullptr, nodes, {nodes[0][0]}, {"duplex"});
            ASSERT_TRUE(context->start());
            const std::jthread cycle([callback = backend().callback] { Cycle(64).run(callback); });
            std::this_thread::sleep_for(100ms); // until the cycle waits for the queue
            context->stop();
        });
    }));
    settle();
    EXPECT_EQ(calls, 0U);
}

TEST_F(DXRAudioContextTest, reportsADeviceThatDoesNotStartAndTriesItAgain)
{
    const auto heard = std::make_shared<std::atomic<int>>(0);
    backend().startStatus = kAudioHardwareUnspecifiedError;
    runner->removeDevice(device(true));
    runner->setNotifier(nullptr, [heard] { ++*heard; });
    const uint32_t starts = backend().starts;
    const auto begin = std::chrono::steady_clock::now();
    runner->start();
    EXPECT_TRUE(runner->isRunning());
    EXPECT_EQ(runner->frameCount(), 0U);
    EXPECT_TRUE(runner->activeDevices().empty());
    EXPECT_EQ(runner->error().deviceUID, "duplex");
    EXPECT_EQ(runner->error().status, kAudioHardwareUnspecifiedError);
    EXPECT_EQ(runner->error().text.substr(0, 14), "cannot start '");
    EXPECT_TRUE(eventually([&] { return backend().starts >= starts + 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 300ms) << "after 100 and 200 ms";
    EXPECT_EQ(*heard, 1) << "the same error is no news";
    backend().startStatus = 0;
    EXPECT_TRUE(eventually([this] { return !runner->error(); }));
    settle();
    EXPECT_EQ(runner->frameCount(), frames);
    EXPECT_EQ(runner->activeDevices().size(), 1U);
    EXPECT_GE(*heard, 2);
}

TEST_F(DXRAudioContextTest, refusesNodesThatNoBufferHolds)
{
    constexpr uint32_t frameCount = 1U << 20;
    const DXRDeviceRunner::Channels tooMany(DXRDeviceNode::maxSamples / frameCount + 1, 1);
    const DXRIOBlock idle = [](uint64_t, DXRBuffer&) {};
    runner->removeDevice(device(false));
    ASSERT_TRUE(runner->setFrameCount(frameCount));
    EXPECT_FALSE(runner->addDevice(device(false), tooMany, idle)) << "known beforehand";
    ASSERT_TRUE(runner->setFrameCount(0));
    ASSERT_TRUE(runner->addDevice(device(false), tooMany, idle));
    ASSERT_TRUE(runner->setFrameCount(frameCount));
    runner->start();
    EXPECT_NE(runner->error().text.find("too many channels"), std::string::npos) << runner->error().text;
    EXPECT_TRUE(runner->activeDevices().empty());
    unplug(); // the timer context cannot run the node either
    EXPECT_TRUE(runner->error());
}

// The buffer of the node fits into memory, the converter's does not. Only the buffer's may be reported if the
// allocator has meanwhile reserved address space for another thread.
TEST_F(DXRAudioContextTest, reportsThatMemoryIsExhausted)
{
#ifdef DXR_SANITIZED
    GTEST_SKIP() << "the sanitizers exceed a limited address space";
#endif
    constexpr uint32_t frameCount = 1U << 20, channels = 30;
    backend().unplug("duplex");
    backend().plug(aDevice().uid("duplex").outputs(channels).bufferFrameSize(frames));
    settle();
    DXRDeviceRunner::Channels all(channels);
    std::iota(all.begin(), all.end(), 1);
    ASSERT_TRUE(runner->setFrameCount(frameCount));
    runner->removeDevice(device(false));
    ASSERT_TRUE(runner->addDevice(device(false), all, [](uint64_t, DXRBuffer&) {}));
    rlimit before{};
    getrlimit(RLIMIT_AS, &before);
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t bufferSize = rlim_t{frameCount} * channels * sizeof(float);
    const rlimit limit{pages * static_cast<rlim_t>(getpagesize()) + bufferSize * 8 / 5, before.rlim_max};
    setrlimit(RLIMIT_AS, &limit);
    runner->start();
    setrlimit(RLIMIT_AS, &before);
    EXPECT_TRUE(runner->error().text.starts_with("not enough memory")) << runner->error().text;
    EXPECT_TRUE(eventually([this] { return !runner->error(); })) << "tried again";
}

TEST_F(DXRAudioContextTest, countsCyclesThatEndAfterTheNextIsDue)
{
    runner->start();
    Cycle untimed(0);
    untimed.now.hostTime = 1; // not flagged as valid, so the cycle cannot be late
    untimed.run();
    for (const int64_t seconds : {-10, 10, -10}) { // offset of the cycle's time stamp from now
        Cycle one(static_cast<double>(64 * runner->counts().cycles));
        one.now.flags |= kAudioTimeStampHostTimeValid;
        one.now.hostTime = dxr::HostClock::nowTicks() + static_cast<uint64_t>(seconds * 1'000'000'000);
        const uint64_t late = runner->counts().lateCycles + (seconds < 0 ? 1 : 0);
        one.run();
        EXPECT_EQ(runner->counts().lateCycles, late);
    }
    EXPECT_EQ(runner->counts().cycles, 4U);
}

// A runner is stopped in its block and released; the hardware then calls the old callback again.
TEST_F(DXRAudioContextTest, outlivesItsCycle)
{
    auto mine = DXRDeviceRunner::init();
    uint32_t mineCalled = 0;
    ASSERT_TRUE(mine->addDevice(device(false), std::nullopt, [&](uint64_t, DXRBuffer&) {
        if (++mineCalled == 2)
            mine->stop();
    }));
    mine->start();
    const AudioDeviceIOBlock callback = backend().callback;
    for (const double time : {0, 64})
        Cycle(time).run(callback);
    mine->queue()->dispatchSync([] {});
    EXPECT_FALSE(mine->isRunning());
    mine = nullptr;
    Cycle(128).run(callback);
    EXPECT_EQ(mineCalled, 2U);
}

} // namespace
