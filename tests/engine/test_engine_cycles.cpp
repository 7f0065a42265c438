// Tests the whole path from a device's input to its output, cycle by cycle.

#include "EngineComputer.h"
#include "HALIO.h"

#include <future>

namespace {

constexpr float step = 1.0F / (1U << 24); // between consecutive frames of a ramp
constexpr uint32_t frames = 512;

/// Plays what it records: the input block stores a buffer, the output block plays it.
class EngineCyclesTest : public EngineComputer {
protected:
    EngineCyclesTest() { buffer.reserve(4096); }

    void loop(const std::string& in, const std::string& out, const Channels& outputs)
    {
        ASSERT_TRUE(
            runner->addDevice(device(in, input), std::nullopt, [this](uint64_t time, DXRBuffer& heard) {
                jumps += time != std::exchange(nextTime, time + heard.frameCount());
                buffer.assign(heard.samples(),
                              heard.samples() + size_t{heard.channelCount()} * heard.frameCount());
            }));
        ASSERT_TRUE(runner->addDevice(device(out, output), outputs, [this](uint64_t, DXRBuffer& given) {
            std::ranges::copy(buffer, given.samples());
        }));
    }
    /// The number of consecutive frames at the end of what was played.
    size_t exactFrames() const
    {
        size_t exact = 1;
        while (exact < played.size() &&
               played[played.size() - exact] == played[played.size() - exact - 1] + step)
            ++exact;
        return exact;
    }
    /// The composition of the only private aggregate; null if there is none.
    CXPlist composition()
    {
        for (const AudioObjectID each : readDevices(hal)) {
            if (!readText(hal, each, at(kAudioDevicePropertyDeviceUID)).value_or("").starts_with("DXR:"))
                continue;
            const auto made = readValue<CXObject*>(hal, each, at(kAudioAggregateDevicePropertyComposition));
            return CXRefCast<CXValue>(CXRef<CXObject>::adopt(made.value()))->plist();
        }
        return {};
    }

    using Parts = std::vector<std::pair<std::string, int>>; // UID and drift compensation
    static Parts partsOf(const CXPlist& made)
    {
        Parts parts;
        for (const CXPlist& part : made["subdevices"])
            parts.emplace_back(part["uid"], part["drift"]);
        return parts;
    }
    std::vector<float> buffer, played;
    uint64_t nextTime = 0, jumps = 0; // of the input block
};

TEST_F(EngineCyclesTest, carriesEveryFrameExactlyAtEqualAndUnequalFrameCounts)
{
    const struct {
        uint32_t runnerFrames, deviceFrames, channels;
        size_t maxLatency; // frames of silence or padding at the beginning
    } rows[] = {{0, 512, 2, 1024},  {512, 512, 2, 1024}, {96, 512, 2, 1536},
                {480, 64, 2, 1536}, {7, 13, 2, 64},      {0, 64, 3000, 128}}; // too large for a stack
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.runnerFrames) + " on " + std::to_string(row.deviceFrames));
        played.clear();
        nextTime = 0;
        SimulatedDeviceBuilder both = aDevice().uid("loop").inputs(row.channels).outputs(row.channels);
        both.bufferFrameSize(row.deviceFrames).bufferFrameSizeRange(row.deviceFrames, row.deviceFrames);
        plug(both.hears(simulatedRamp()).playsInto(sinkTo(played)));
        runner->setFrameCount(row.runnerFrames);
        loop("loop", "loop", {row.channels, 1});
        runner->start();
        hal.stepCycles(100);
        runner->stop();
        EXPECT_LE(played.size() - exactFrames(), row.maxLatency);
        EXPECT_EQ(jumps, 0U);
        for (const bool isInput : {true, false})
            runner->removeDevice(device("loop", isInput));
        unplug("loop");
    }
}

TEST_F(EngineCyclesTest, leavesTheBufferOfAnAbsentInputAsItIs)
{
    plug(aDevice().uid("mic").inputs(1));
    plug(aDevice().uid("out").outputs(2).bufferFrameSize(frames).bufferFrameSizeRange(frames, frames));
    std::vector<float> seen;
    uint64_t lastHostTime = 0;
    ASSERT_TRUE(runner->addDevice(device("out", output), std::nullopt, idle));
    ASSERT_TRUE(runner->addDevice(device("mic", input), std::nullopt, [&](uint64_t, DXRBuffer& heard) {
        const CXRealtimeExemption exemption("the test's own bookkeeping");
        seen.push_back(std::exchange(heard.samples()[0], 7.0F));
        EXPECT_GT(heard.hostTime(), std::exchange(lastHostTime, heard.hostTime())) << "time goes on";
    }));
    unplug("mic");
    for (const uint32_t runnerFrames : {frames, frames / 2}) {
        runner->setFrameCount(runnerFrames);
        runner->start();
        hal.stepCycles(2);
        runner->stop();
        ASSERT_GE(seen.size(), 2U);
        EXPECT_EQ(seen.back(), 7.0F) << runnerFrames;
        seen.clear();
    }
}

TEST_F(EngineCyclesTest, followsARateThatAnotherProgramChanges)
{
    plug(aDevice().uid("loop").inputs(2).outputs(2));
    loop("loop", "loop", {1, 2});
    runner->start();
    for (const auto& [rate, deviceCycles] : {std::pair{48000.0, 100U}, {96000.0, 200U}, {44100.0, 92U}}) {
        writeValue(hal, device("loop", output)->deviceID(), at(kAudioDevicePropertyNominalSampleRate), rate);
        settle();
        const uint64_t before = runner->sampleTime();
        hal.stepCycles(deviceCycles);
        EXPECT_NEAR(static_cast<double>(runner->sampleTime() - before), 100 * frames, 2 * frames) << rate;
    }
    EXPECT_EQ(jumps, 0U);
}

// A cycle sees the change first, because the thread that would announce it is blocked.
TEST_F(EngineCyclesTest, playsOnNewChannelsBeforeTheyAreAnnounced)
{
    plug(aDevice().uid("grows").inputs(2).outputs(2).hears(simulatedRamp()).playsInto(sinkTo(played, 3)));
    loop("grows", "grows", {3, 4});
    runner->start();
    std::promise<void> held, release;
    const auto name = at(kAudioObjectPropertyName);
    const auto listener = DXRPropertyListener::initWithObjectID(
        hal.deviceID("grows"), &name, nullptr, CXRef<CXObject>(runner), [&](const auto&, auto) {
            held.set_value();
            release.get_future().wait();
        });
    listener->start();
    hal.reconfigure("grows", [](auto& it) { it.name("Held"); });
    held.get_future().wait();
    hal.reconfigure("grows", [](auto& it) { it.outputs(2); });
    hal.stepCycles(1);
    EXPECT_TRUE(eventually([this] { return runner->counts().restarts > 0; }));
    EXPECT_EQ(runner->activeDevices().size(), 2U) << "which waits for the end of the restart";
    hal.stepCycles(10);
    release.set_value();
    listener->stop();
    EXPECT_GT(exactFrames(), 8U * frames);
}

TEST_F(EngineCyclesTest, runsTwoDevicesAsOneOfWhichTheFirstGivesTheClock)
{
    plug(aDevice().uid("in").inputs(2).outputs(2).hears(simulatedRamp()).clockDomain(1));
    plug(aDevice().uid("out").outputs(2).outputs(4).playsInto(sinkTo(played, 5)).clockDomain(1));
    loop("in", "out", {6, 5});
    runner->start();
    EXPECT_EQ(runner->activeDevices().size(), 2U);
    const CXPlist made = composition();
    EXPECT_TRUE(made["name"] == "DXRDeviceAggregate" && made["private"] == 1 && made["stacked"] == 0);
    EXPECT_EQ(made["master"], "in");
    EXPECT_EQ(partsOf(made), (Parts{{"in", 0}, {"out", 1}})) << "the clock is not compensated";
    hal.stepCycles(200);
    EXPECT_EQ(runner->sampleTime(), 200U * frames);
    EXPECT_GT(exactFrames(), 190U * frames);
    EXPECT_EQ(runner->counts().restarts, 0U);
    runner->stop();
    EXPECT_TRUE(composition().is_null());
}

// An aggregate created by another program: its parts are used, and none of them may become the clock device.
TEST_F(EngineCyclesTest, takesAnAggregateApartAmongOtherDevices)
{
    plug(aDevice().uid("a").inputs(2).outputs(1).clockDomain(1).hears(simulatedRamp()));
    plug(aDevice().uid("b").outputs(2).clockDomain(1).playsInto(sinkTo(played, 1)));
    plug(aDevice().uid("c").inputs(1).clockDomain(1));
    const AudioObjectID aggregate = makeAggregate(modelOf(hal), {"a", "b"}, {{"uid", "both"}});
    settle();
    ASSERT_TRUE(runner->addDevice(device("both", output), Channels{3, 1}, idle));
    runner->start();
    hal.stepCycles(1);
    EXPECT_EQ(runner->sampleTime(), frames);
    EXPECT_TRUE(composition().is_null()) << "one node needs no aggregate of ours";
    runner->stop();
    runner->removeDevice(device("both", output));
    loop("both", "both", {3, 1});
    runner->start();
    EXPECT_FALSE(composition().contains("master"));
    hal.stepCycles(100);
    EXPECT_GT(exactFrames(), 50U * frames) << "channel 3 of the aggregate is channel 2 of b";
    EXPECT_EQ(runner->latencies().size(), 2U);
    ASSERT_TRUE(runner->addDevice(device("c", input), std::nullopt, idle));
    EXPECT_EQ(composition()["master"], "c") << "the first that is a device of a node";
    EXPECT_EQ(partsOf(composition()), (Parts{{"a", 1}, {"c", 0}, {"b", 1}}));
    unplug("b");
    EXPECT_EQ(partsOf(composition()), (Parts{{"a", 1}, {"c", 0}})) << "only parts that are there";
    runner->stop();
    EXPECT_EQ(AudioHardwareDestroyAggregateDevice(aggregate), 0);
}

// The hardware keeps the channels of an absent part; output of the other device must not be written to them.
TEST_F(EngineCyclesTest, keepsTheChannelsOfAnAggregateWhosePartComesAndGoes)
{
    const auto levelOf = [](char uid) { return 0.25F * static_cast<float>(uid - 'a' + 1); };
    const auto plugPart = [&](char uid) {
        const auto level = [=](uint64_t, uint32_t frameCount, uint32_t channels, double, float* samples) {
            std::fill_n(samples, size_t{frameCount} * channels, levelOf(uid));
        };
        plug(aDevice().uid(std::string(1, uid)).inputs(2).clockDomain(1).hears(level));
    };
    for (const char uid : {'a', 'b', 'c'})
        plugPart(uid);
    const AudioObjectID aggregate = makeAggregate(modelOf(hal), {"a", "b"}, {{"uid", "both"}});
    settle();
    std::vector<float> heard(7); // one sample of each channel
    const auto keepLast = [&heard](size_t place) {
        return [&heard, place](uint64_t, DXRBuffer& given) {
            std::copy_n(given.samples(), given.channelCount(), heard.data() + place);
        };
    };
    ASSERT_TRUE(runner->addDevice(device("both", input), Channels{1, 2, 3, 4, 9}, keepLast(0)));
    ASSERT_TRUE(runner->addDevice(device("c", input), Channels{1, 2}, keepLast(5)));
    unplug("a");
    runner->start();
    std::string present = "bc";
    for (const char change : {' ', 'a', 'a', 'a', 'c', 'c', 'b', 'a'}) { // what is plugged or unplugged
        if (present.find(change) != std::string::npos) {
            unplug(std::string(1, change));
            std::erase(present, change);
        } else if (change != ' ') {
            plugPart(change);
            present += change;
        }
        SCOPED_TRACE(present);
        hal.stepCycles(60);
        const auto expected = [&](char uid) {
            return present.find(uid) == std::string::npos ? 0 : levelOf(uid);
        };
        const float a = expected('a'), b = expected('b'), c = expected('c');
        EXPECT_EQ(heard, (std::vector<float>{a, a, b, b, 0, c, c}));
        EXPECT_EQ(runner->activeDevices().size(), c == 0 ? 1U : 2U);
        EXPECT_EQ(runner->latencies().size(), (a + b > 0 ? 1U : 0U) + (c > 0 ? 1U : 0U));
    }
    runner->stop();
    EXPECT_EQ(AudioHardwareDestroyAggregateDevice(aggregate), 0);
}

// The last part that is there leads the aggregate, although it has no channel that the node uses.
TEST_F(EngineCyclesTest, reportsThatTheLastPartOfAnAggregateIsGoneUntilOneReturns)
{
    const auto a = aDevice().uid("a").inputs(2), b = aDevice().uid("b").outputs(2);
    plug(a);
    plug(b);
    const AudioObjectID aggregate = makeAggregate(modelOf(hal), {"a", "b"}, {{"uid", "both"}});
    settle();
    ASSERT_TRUE(runner->addDevice(device("both", input), std::nullopt, idle));
    runner->start();
    unplug("a");
    for (const auto& part : {b, a}) { // the one that returns
        hal.stepCycles(1);
        EXPECT_EQ(runner->activeDevices().size(), 1U);
        unplug("b");
        EXPECT_TRUE(runner->error());
        EXPECT_TRUE(runner->activeDevices().empty());
        const uint64_t restarts = runner->counts().restarts;
        EXPECT_TRUE(eventually([&] { return runner->counts().restarts >= restarts + 3; }));
        plug(part);
        EXPECT_FALSE(runner->error()) << "at once, not after the next pause";
        const uint64_t before = runner->sampleTime();
        hal.stepCycles(1);
        EXPECT_GT(runner->sampleTime(), before);
    }
    runner->stop();
    EXPECT_EQ(AudioHardwareDestroyAggregateDevice(aggregate), 0);
}

TEST_F(EngineCyclesTest, followsDevicesOfAnAggregateThatSwapTheirChannelCounts)
{
    plug(aDevice().uid("a").outputs(2).outputs(2).clockDomain(1));
    plug(aDevice().uid("b").outputs(2).clockDomain(1).playsInto(sinkTo(played)));
    plug(aDevice().uid("loop").inputs(2).clockDomain(1).hears(simulatedRamp()));
    ASSERT_TRUE(runner->addDevice(device("a", output), Channels{1, 2}, [](uint64_t, DXRBuffer& given) {
        std::fill_n(given.samples(), size_t{given.frameCount()} * 2, -1.0F);
    }));
    loop("loop", "b", {1, 2});
    runner->start();
    hal.stepCycles(10);
    hal.reconfigure("a", [](auto& it) { it.noStreams(HALDirection::Output).outputs(2); });
    reconfigure("b", [](auto& it) { it.noStreams(HALDirection::Output).outputs(2).outputs(2); });
    hal.stepCycles(100);
    EXPECT_GT(exactFrames(), 20U * frames);
    EXPECT_EQ(std::ranges::count(played, -1.0F), 0) << "what is for the other device";
}

// The default device changes a hundred times while a ramp plays: only the first buffer of a new device is
// lost, and the sample time continues without a jump. The new device may have just appeared.
TEST_F(EngineCyclesTest, followsTheDefaultDevice)
{
    constexpr auto direction = DXRDeviceRunner::Direction::Output;
    uint64_t dueTime = 0, steps = 0, next = 1;
    const DXRIOBlock ramp = [&](uint64_t time, DXRBuffer& given) {
        steps += time != std::exchange(dueTime, time + given.frameCount());
        for (uint32_t frame = 0; frame < given.frameCount(); ++frame)
            given.samples()[size_t{frame} * given.channelCount()] = static_cast<float>(next++ & 0x3FFFFF);
    };
    EXPECT_FALSE(runner->addDefaultDevice(direction, std::nullopt, nullptr));
    ASSERT_TRUE(runner->addDefaultDevice(direction, std::nullopt, ramp)) << "before there is any";
    EXPECT_FALSE(runner->addDefaultDevice(direction, std::nullopt, ramp));
    EXPECT_TRUE(runner->devices().empty());
    plug(aDevice().uid("one").outputs(2).playsInto(sinkTo(played)));
    ASSERT_TRUE(runner->setFrameCount(frames));
    runner->start();
    plug(aDevice().uid("two").outputs(2).playsInto(sinkTo(played)));
    const CXRef<DXRDevice> one = device("one", output), two = device("two", output);
    for (int change = 0; change < 100; ++change) {
        hal.stepCycles(4);
        const CXRef<DXRDevice>& device = change % 2 == 0 ? two : one;
        ASSERT_TRUE(hal.setDefault(HALDirection::Output, device->deviceUID()));
        settle();
        ASSERT_EQ(runner->activeDevices(), Devices{device});
    }
    hal.stepCycles(4);
    float heard = 0;
    size_t silence = 0;
    for (const float number : played) {
        silence = number == 0 ? silence + 1 : 0;
        EXPECT_LE(silence, frames) << "the buffer that every output begins with";
        EXPECT_TRUE(number == 0 || number <= heard + 1 + frames) << heard;
        heard = number == 0 ? heard : number;
    }
    EXPECT_GT(played.size(), 300U * frames);
    EXPECT_EQ(steps, 0U);
    EXPECT_EQ(runner->counts().restarts, 100U);

    runner->removeDevice(one);
    EXPECT_EQ(runner->devices().size(), 1U) << "the default device is removed as such";
    ASSERT_TRUE(runner->addDevice(two, std::nullopt, idle));
    hal.setDefault(HALDirection::Output, "two");
    settle();
    EXPECT_EQ(runner->devices().size(), 2U) << "one that was added by itself is not taken over";
    runner->removeDefaultDevice(direction);
    EXPECT_EQ(runner->devices(), Devices{two});
    runner->removeDevice(two);
    ASSERT_TRUE(runner->addDefaultDevice(direction, std::nullopt, ramp));
    EXPECT_EQ(runner->devices(), Devices{two}) << "at once where there is one";
    runner->removeDefaultDevice(direction);
    ASSERT_TRUE(runner->addDevice(two, std::nullopt, idle));
    ASSERT_TRUE(runner->addDefaultDevice(direction, std::nullopt, ramp));
    runner->removeDevice(two);
    EXPECT_EQ(runner->devices(), Devices{two}) << "from then on as the default device";
}

// One read fails when the default device is added, and one when it has changed.
TEST_F(EngineCyclesTest, followsTheDefaultDeviceOnceItCanBeRead)
{
    const auto failRead = [&] {
        hal.failReads(kAudioHardwarePropertyDefaultOutputDevice, 1, 1, kAudioHardwareUnspecifiedError);
    };
    for (const char* uid : {"one", "two"})
        plug(aDevice().uid(uid).outputs(2));
    failRead();
    ASSERT_TRUE(runner->addDefaultDevice(DXRDeviceRunner::Direction::Output, std::nullopt, idle));
    runner->start();
    EXPECT_TRUE(becomesTrue([&] { return runner->activeDevices() == Devices{device("one", output)}; }));

    std::promise<void> isRead; // by the manager
    runner->queue()->dispatchAsync([&] { isRead.get_future().wait(); });
    hal.setDefault(HALDirection::Output, "two");
    hal.settle();
    DXRDeviceManager::queue().sync(failRead);
    isRead.set_value();
    EXPECT_TRUE(becomesTrue([&] { return runner->activeDevices() == Devices{device("two", output)}; }));
}

TEST_F(EngineCyclesTest, endsTheProcessWithAClearMessageWhenABlockThrows)
{
    plug(aDevice().uid("thrower").outputs(2));
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a forked process would not have the queue's thread
    runner->addDevice(device("thrower", output), std::nullopt, [](uint64_t, DXRBuffer&) {
        const CXRealtimeExemption exemption("what the test does in a cycle");
        throw std::runtime_error("out of ideas");
    });
    runner->start();
    EXPECT_DEATH(hal.stepCycles(1), "IO block of .*thrower.* threw .*out of ideas");
}

} // namespace
