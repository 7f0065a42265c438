// Runs cycles from the test, with buffer lists and times as hardware might deliver them.

#include "DXRAudioContext.h"
#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "DrivenHardware.h"
#include "Eventually.h"
#include "Gate.h"
#include "HostClock.h"
#include "RunnerIO.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

namespace {

using namespace std::chrono_literals;

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
    /// Waits for a restart, which first waits on another thread for the end of the old callback.
    void awaitRestart()
    {
        EXPECT_TRUE(eventually([this] { return runner->counts().restarts > 0; }));
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
    uint32_t calls = 0, lastFrames = 0;
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
    for (const double rate : {0.0, 1e-3}) { // unreadable, and too low to be a rate
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

// The new layouts: one direction missing, and the same number of channels in other streams.
TEST_F(DXRAudioContextTest, restartsForANewLayoutAndLeavesTheOldCallbackDeaf)
{
    Cycle oneSided(64), split(64);
    oneSided.inputTime.flags = 0;
    struct {
        uint32_t count;
        AudioBuffer buffers[2];
    } two{2, {{1, frames * 4, split.samples}, {1, frames * 4, split.samples + frames}}};
    const AudioBufferList* const inputs[] = {&oneSided.input, reinterpret_cast<const AudioBufferList*>(&two)};
    for (const size_t row : {0U, 1U}) {
        Cycle& strange = row == 0 ? oneSided : split;
        calls = 0;
        const uint32_t startsBefore = backend().starts;
        runner->start();
        Cycle(0).run();
        const AudioDeviceIOBlock old = backend().callback;
        old(&strange.now, inputs[row], &strange.inputTime, &strange.output, &strange.outputTime);
        EXPECT_EQ(calls, 1U);
        awaitRestart();
        EXPECT_EQ(backend().starts, startsBefore + 2);
        Cycle(192).run();
        EXPECT_EQ(calls, 2U);
        EXPECT_EQ(runner->sampleTime(), 2 * frames) << "time goes on";
        Cycle(256).run(old);
        EXPECT_EQ(calls, 2U);
        runner->stop();
    }
}

TEST_F(DXRAudioContextTest, waitsForItsTurnWhileTheQueueIsBusy)
{
    runner->start();
    uint32_t expected = 0;
    EXPECT_TRUE(isPrompt([&] {
        Gate gate(*runner->queue());
        std::thread io([&] { Cycle(64.0 * ++expected).run(); });
        std::this_thread::sleep_for(20ms);
        gate.open();
        io.join();
        EXPECT_EQ(calls, expected);
    }));
    Gate gate(*runner->queue());
    std::thread stopping([&] { runner->stop(); }), io([] { Cycle(6400).run(); });
    std::this_thread::sleep_for(20ms);
    gate.open();
    stopping.join();
    const uint32_t callsAtStop = calls;
    io.join();
    settle();
    EXPECT_EQ(calls, callsAtStop) << "none after a stop";
    runner->start();
    Cycle(12800).run();
    EXPECT_EQ(calls, callsAtStop + 1) << "and all is well again";
}

// Work of the queue waits for a cycle that waits for the queue.
TEST_F(DXRAudioContextTest, losesACycleRatherThanWaitInACircle)
{
    runner->start();
    Cycle(0).run();
    runner->queue()->dispatchSync([] { std::thread([] { Cycle(64).run(); }).join(); });
    settle();
    EXPECT_EQ(calls, 1U) << "that cycle is lost";
    Cycle(128).run();
    EXPECT_EQ(calls, 2U);
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
            std::thread cycle([callback = backend().callback] { Cycle(64).run(callback); });
            std::this_thread::sleep_for(100ms); // until the cycle waits for the queue
            context->stop();
            cycle.join();
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
    runner->start();
    EXPECT_TRUE(runner->isRunning());
    EXPECT_EQ(runner->frameCount(), 0U);
    EXPECT_TRUE(runner->activeDevices().empty());
    EXPECT_EQ(runner->error().deviceUID, "duplex");
    EXPECT_EQ(runner->error().status, kAudioHardwareUnspecifiedError);
    EXPECT_NE(runner->error().text.find("cannot start '"), std::string::npos) << runner->error().text;
    const uint32_t startsBefore = backend().starts;
    EXPECT_TRUE(eventually([&] { return backend().starts >= startsBefore + 2; })) << "two tries that fail";
    EXPECT_EQ(*heard, 1) << "the same error is no news";
    backend().startStatus = 0;
    EXPECT_TRUE(eventually([this] { return !runner->error(); }));
    settle();
    EXPECT_EQ(runner->frameCount(), frames);
    EXPECT_EQ(runner->activeDevices().size(), 1U);
    EXPECT_GE(*heard, 2);
}

// The node has more samples per cycle than a buffer can hold.
TEST_F(DXRAudioContextTest, refusesNodesThatNoBufferHolds)
{
    const auto channelsFor = [](uint64_t frameCount) {
        return DXRDeviceRunner::Channels(DXRDeviceNode::maxSamples / frameCount + 1, 1);
    };
    const DXRIOBlock idle = [](uint64_t, DXRBuffer&) {};
    runner->removeDevice(device(false));
    ASSERT_TRUE(runner->setFrameCount(1U << 20));
    EXPECT_FALSE(runner->addDevice(device(false), channelsFor(1U << 20), idle)) << "known beforehand";
    ASSERT_TRUE(runner->setFrameCount(0));
    ASSERT_TRUE(runner->addDevice(device(false), channelsFor(1U << 20), idle));
    ASSERT_TRUE(runner->setFrameCount(1U << 20));
    runner->start();
    EXPECT_EQ(runner->error().deviceUID, "duplex");
    EXPECT_NE(runner->error().text.find("too many channels"), std::string::npos) << runner->error().text;
    EXPECT_TRUE(runner->activeDevices().empty());
    unplug(); // the timer context cannot run the node either
    EXPECT_TRUE(runner->error());
}

// Checks the host time of a block's first frame against the time at which the device recorded or plays it.
// The device is 300 ppm off, and its time stamps are off by some 50 us, or late, as when threads wake late.
// Each sample carries its frame's number, so the measurement includes converters and their delays. In a soak
// the test covers an hour.
TEST_F(DXRAudioContextTest, knowsWhenABlocksFramesAreAtTheDevice)
{
    const struct {
        uint32_t runnerFrames;
        double runnerRate, partsPerMillion;
        DXRConversionQuality quality;
        bool isEarlyToo; ///< false: stamps are only late
    } rows[] = {
        {64, 48000, 300, DXRConversionQuality::Standard, false},
        {64, 48000, -300, DXRConversionQuality::Standard, true},
        {100, 48000, 300, DXRConversionQuality::Standard, true},
        {64, 44100, -300, DXRConversionQuality::Standard, false},
        {441, 44100, 300, DXRConversionQuality::High, true},
    };
    constexpr double deviceRate = 48000, begin = 1e12; // ns
    constexpr uint64_t turn = 1 << 14;                 // frames after which the numbers wrap
    const double seconds = std::getenv("DXR_SOAK_SECONDS") ? 3600 : 60;
    for (const auto& row : rows) {
        const double period = 1e9 / (deviceRate * (1 + row.partsPerMillion * 1e-6));
        const auto numberOf = [](double frame) { return frame - std::floor(frame / turn) * turn; };
        const auto frameAt = [&](uint64_t nanoseconds) {
            return (static_cast<double>(nanoseconds) - begin) / period;
        };
        std::vector<double> errors[2]; // ns; of the input and of the output
        for (auto& each : errors)
            each.reserve(static_cast<size_t>(seconds * 1000));
        const auto note = [&](size_t direction, double off) {
            if (std::abs(off) < turn / 2 && errors[direction].size() < errors[direction].capacity())
                errors[direction].push_back(std::abs(off * period));
        };
        // Frames near the wrap are left out: their numbers are not monotonic.
        const auto isFarFromTurn = [](double number) { return number > 2000 && number < turn - 2000; };
        for (const bool isInput : {true, false})
            runner->removeDevice(device(isInput));
        runner->addDevice(device(true), DXRDeviceRunner::Channels{1}, [&](uint64_t, DXRBuffer& buffer) {
            const double number = static_cast<double>(buffer.samples()[0]);
            if (isFarFromTurn(number))
                note(0, number - numberOf(frameAt(buffer.hostTime())));
        });
        runner->addDevice(device(false), DXRDeviceRunner::Channels{1}, [&](uint64_t, DXRBuffer& buffer) {
            const double first = frameAt(buffer.hostTime());
            for (uint32_t k = 0; k < buffer.frameCount(); ++k)
                buffer.samples()[k] = static_cast<float>(numberOf(first + k * deviceRate / row.runnerRate));
        });
        runner->setFrameCount(row.runnerFrames);
        runner->setSampleRate(row.runnerRate);
        backend().sampleRate = deviceRate;
        ASSERT_TRUE(runner->setConversionQuality(row.quality));
        runner->start();
        std::mt19937 random(1);
        std::normal_distribution<double> jitter(0, 50e3);
        const auto cycles = static_cast<uint64_t>(seconds * deviceRate / frames);
        for (uint64_t cycle = 1; cycle <= cycles; ++cycle) {
            const double now = static_cast<double>(cycle * frames);
            Cycle one(now);
            const double off = jitter(random);
            one.now.hostTime =
                static_cast<uint64_t>(begin + now * period + (row.isEarlyToo ? off : std::abs(off)));
            one.now.flags |= kAudioTimeStampHostTimeValid;
            one.inputTime.sampleTime = now - frames - 17; // includes a safety offset
            one.outputTime.sampleTime = now + frames + 5;
            for (uint32_t k = 0; k < frames; ++k)
                one.samples[2 * k] = static_cast<float>(numberOf(one.inputTime.sampleTime + k));
            one.run();
            const double played = static_cast<double>(one.samples[2 * frames]);
            if (cycle * frames > 4800 && isFarFromTurn(numberOf(one.outputTime.sampleTime)) &&
                isFarFromTurn(played))
                note(1, played - numberOf(one.outputTime.sampleTime));
        }
        runner->stop();
        for (const size_t direction : {0U, 1U}) {
            std::vector<double>& all = errors[direction];
            ASSERT_GT(all.size(), 1000U);
            std::ranges::sort(all);
            const double median = all[all.size() / 2] / 1e3, worst = all.back() / 1e3;
            std::printf("%u frames, %.0f Hz, %+.0f ppm, %s: time off by %.2f us median, %.1f us worst\n",
                        row.runnerFrames, row.runnerRate, row.partsPerMillion,
                        direction == 0 ? "input" : "output", median, worst);
            EXPECT_LT(median, 20);
            EXPECT_LT(worst, 200);
        }
    }
}

TEST_F(DXRAudioContextTest, countsCyclesThatEndAfterTheNextIsDue)
{
    runner->start();
    Cycle untimed(0);
    untimed.now.hostTime = 1; // not flagged as valid, so the cycle cannot be late
    untimed.run();
    uint64_t late = 0;
    for (const int64_t seconds : {-10, 10, -10}) { // offset of the cycle's time stamp from now
        Cycle one(static_cast<double>(64 * runner->counts().cycles));
        one.now.flags |= kAudioTimeStampHostTimeValid;
        one.now.hostTime = dxr::HostClock::nowTicks() + static_cast<uint64_t>(seconds * 1'000'000'000);
        one.run();
        late += seconds < 0;
        EXPECT_EQ(runner->counts().lateCycles, late);
    }
    EXPECT_EQ(runner->counts().cycles, 4U);
}

// Buffer lists as hardware may deliver them: the first buffer with data determines the frame count, and
// shorter buffers are not used.
TEST(StreamBuffers, giveFramesAndChannels)
{
    struct Steps : DXRAudioContext {
        using DXRAudioContext::_frameCountOf, DXRAudioContext::_hasStreams, DXRAudioContext::_sampleBuffers;
    };
    float samples[16] = {};
    struct {
        uint32_t count;
        AudioBuffer buffers[5];
    } five{5, {{0, 64, samples}, {2, 64, nullptr}, {2, 7, samples}, {2, 32, samples}, {1, 12, samples + 8}}};
    const auto* const list = reinterpret_cast<const AudioBufferList*>(&five);
    EXPECT_EQ(Steps::_frameCountOf(list), 4U);
    using Streams = std::vector<uint32_t>;
    EXPECT_TRUE(Steps::_hasStreams(list, Streams{2, 2, 2, 1})) << "one without channels is none";
    for (const Streams& other : {Streams{2, 2, 2}, {2, 2, 2, 1, 1}, {2, 2, 1, 2}, {0, 2, 2, 2, 1}})
        EXPECT_FALSE(Steps::_hasStreams(list, other));
    DXRChannelEntry entries[8] = {};
    Steps::_sampleBuffers(entries, 7, 3, list);
    const float* const expected[] = {nullptr, nullptr,     nullptr,     nullptr,
                                     samples, samples + 1, samples + 8, nullptr};
    for (size_t i = 0; i < 8; ++i)
        EXPECT_EQ(entries[i].samples, expected[i]) << i;
    EXPECT_EQ(entries[5].stride, 2U);
    EXPECT_EQ(entries[6].stride, 1U);
    Steps::_sampleBuffers(entries, 6, 4, list);
    EXPECT_EQ(entries[6].samples, samples + 8) << "no room for it";
    Steps::_sampleBuffers(entries, 7, 4, list);
    EXPECT_EQ(entries[6].samples, nullptr) << "three frames of four";
}

// A runner is stopped in its block and released; the hardware then calls the old callback again.
TEST_F(DXRAudioContextTest, outlivesItsCycle)
{
    auto mine = DXRDeviceRunner::init();
    uint32_t mineCalled = 0;
    runner->stop();
    ASSERT_TRUE(mine->addDevice(device(false), std::nullopt, [&](uint64_t, DXRBuffer&) {
        if (++mineCalled == 2)
            mine->stop();
    }));
    mine->start();
    AudioDeviceIOBlock callback = backend().callback;
    Cycle(0).run(callback);
    Cycle(64).run(callback);
    mine->queue()->dispatchSync([] {});
    EXPECT_FALSE(mine->isRunning());
    mine = nullptr;
    Cycle(128).run(callback);
    EXPECT_EQ(mineCalled, 2U);
}

} // namespace
