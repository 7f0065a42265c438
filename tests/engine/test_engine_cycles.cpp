// The whole path from a device's input to its output, cycle by cycle.

#include "EngineComputer.h"

#include <cmath>
#include <functional>

namespace {

constexpr float step = 1.0F / (1U << 24); // between two frames of a ramp

/// Plays what it hears: the input block keeps a buffer, the output block gives it away.
class EngineCyclesTest : public EngineComputer {
protected:
    void loop(const std::string& uid)
    {
        buffer.reserve(4096);
        ASSERT_TRUE(runner->addDevice(device(uid, input), std::nullopt, [this](uint64_t time, DXRBuffer& in) {
            isInOrder = isInOrder && (lastTime == none || time == lastTime + in.frameCount());
            lastTime = time;
            buffer.assign(in.samples(), in.samples() + size_t{in.channelCount()} * in.frameCount());
        }));
        ASSERT_TRUE(runner->addDevice(device(uid, output), std::nullopt, [this](uint64_t, DXRBuffer& out) {
            ++cycles;
            std::ranges::copy(buffer, out.samples());
            if (const auto action = std::exchange(inCycle, nullptr)) {
                const CXRealtimeExemption exemption("what the test does in a cycle");
                action();
            }
        }));
    }
    SimulatedSink keep() { return keepChannel(0); }
    SimulatedSink keepChannel(uint32_t channel)
    {
        return
            [this, channel](uint64_t, uint32_t frameCount, uint32_t channels, double, const float* samples) {
                for (uint32_t frame = 0; samples && frame < frameCount; ++frame)
                    played.push_back(samples[size_t{frame} * channels + channel]);
            };
    }
    std::vector<AudioObjectID> privateAggregates()
    {
        std::vector<AudioObjectID> ids = readDevices(hal);
        std::erase_if(ids, [&](AudioObjectID each) {
            const auto uid = readText(hal, each, at(kAudioDevicePropertyDeviceUID));
            return !uid || !uid->starts_with("DXR:");
        });
        return ids;
    }
    CXPlist compositionOf(AudioObjectID aggregate)
    {
        const auto pointer =
            readValue<CXObject*>(hal, aggregate, at(kAudioAggregateDevicePropertyComposition));
        return pointer ? CXRefCast<CXValue>(CXRef<CXObject>::adopt(*pointer))->plist() : CXPlist();
    }
    SimulatedDeviceBuilder looper()
    {
        return aDevice().uid("loop").inputs(2).outputs(2).hears(simulatedRamp()).playsInto(keep());
    }

    static constexpr uint64_t none = UINT64_MAX;
    std::vector<float> buffer, played;
    std::function<void()> inCycle;
    uint64_t lastTime = none;
    uint32_t cycles = 0;
    bool isInOrder = true;
};

TEST_F(EngineCyclesTest, carriesEveryFrameExactlyAtEqualAndUnequalFrameCounts)
{
    struct {
        uint32_t runnerFrames, deviceFrames;
        size_t mostLatency; // frames of silence or padding at the beginning
    } const rows[] = {{0, 512, 1024}, {512, 512, 1024}, {96, 512, 1536}, {480, 64, 1536}, {7, 13, 64}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.runnerFrames) + " on " + std::to_string(row.deviceFrames));
        played.clear();
        lastTime = none;
        plugged(looper()
                    .bufferFrameSize(row.deviceFrames)
                    .bufferFrameSizeRange(row.deviceFrames, row.deviceFrames));
        runner->setFrameCount(row.runnerFrames);
        if (runner->devices().empty())
            loop("loop");
        runner->start();
        hal.stepCycles(100);
        runner->stop();
        size_t exact = 0; // frames at the end that follow one another
        while (exact + 1 < played.size() &&
               played[played.size() - 1 - exact] == played[played.size() - 2 - exact] + step)
            ++exact;
        EXPECT_LE(played.size() - exact, row.mostLatency);
        EXPECT_TRUE(isInOrder);
        unplugged("loop");
    }
}

TEST_F(EngineCyclesTest, followsARateThatAnotherProgramChanges)
{
    plugged(looper());
    loop("loop");
    runner->start();
    hal.stepCycles(100);
    const uint64_t before = runner->sampleTime();
    EXPECT_EQ(before, 100U * 512);
    writeValue(hal, device("loop", output)->deviceID(), at(kAudioDevicePropertyNominalSampleRate), 96000.0);
    settleEngine();
    hal.stepCycles(100);
    EXPECT_NEAR(static_cast<double>(runner->sampleTime() - before), 100 * 256, 2 * 512)
        << "half the time a cycle";
    writeValue(hal, device("loop", output)->deviceID(), at(kAudioDevicePropertyNominalSampleRate), 44100.0);
    settleEngine();
    const uint64_t again = runner->sampleTime();
    hal.stepCycles(441);
    EXPECT_NEAR(static_cast<double>(runner->sampleTime() - again), 480 * 512, 2 * 512);
    EXPECT_TRUE(isInOrder);
}

TEST_F(EngineCyclesTest, goesOnThroughANewLayoutDuringACycle)
{
    plugged(looper());
    loop("loop");
    runner->start();
    hal.stepCycles(10);
    inCycle = [&] {
        hal.reconfigure("loop", [](auto& it) { it.noStreams(HALDirection::Output).outputs(4).outputs(2); });
    };
    hal.stepCycles(1);
    hal.stepCycles(1); // finds the new layout
    settleEngine();
    const uint64_t before = runner->sampleTime();
    EXPECT_GE(before, 11U * 512);
    hal.stepCycles(10);
    EXPECT_EQ(runner->sampleTime(), before + 10U * 512);
    EXPECT_TRUE(isInOrder);
    EXPECT_EQ(runner->activeDevices().size(), 2U);
}

TEST_F(EngineCyclesTest, fallsBackToTheTimerWhenUnpluggedDuringACycleAndReturns)
{
    plugged(looper());
    loop("loop");
    runner->start();
    hal.stepCycles(10);
    inCycle = [&] { hal.unplug("loop"); };
    hal.stepCycles(1);
    settleEngine();
    EXPECT_TRUE(runner->activeDevices().empty());
    const uint32_t before = cycles;
    while (runner->queue()->dispatchSync([] {}), runner->sampleTime() < 15U * 512)
        std::this_thread::yield();
    plugged(looper());
    EXPECT_GT(cycles, before);
    EXPECT_EQ(runner->activeDevices().size(), 2U);
    const uint64_t time = runner->sampleTime();
    hal.stepCycles(5);
    EXPECT_EQ(runner->sampleTime(), time + 5U * 512);
}

TEST_F(EngineCyclesTest, runsDevicesOfMoreChannelsThanFitAStack)
{
    plugged(aDevice()
                .uid("loop")
                .inputs(3000)
                .outputs(3000)
                .bufferFrameSize(64)
                .hears(simulatedRamp())
                .playsInto(keep()));
    ASSERT_TRUE(runner->addDevice(device("loop", output), DXRDeviceRunner::Channels{3000, 1},
                                  [](uint64_t, DXRBuffer& out) { std::fill_n(out.samples(), 128, 0.5F); }));
    runner->start();
    hal.stepCycles(3);
    EXPECT_EQ(played.back(), 0.5F);
    EXPECT_EQ(runner->sampleTime(), 3U * 64);
}

TEST_F(EngineCyclesTest, runsTwoDevicesAsOneOfWhichTheFirstGivesTheClock)
{
    plugged(aDevice().uid("in").inputs(2).outputs(2).hears(simulatedRamp()).clockDomain(1));
    plugged(aDevice().uid("out").outputs(2).outputs(4).playsInto(keepChannel(5)).clockDomain(1));
    ASSERT_TRUE(
        runner->addDevice(device("out", output), DXRDeviceRunner::Channels{6, 5},
                          [this](uint64_t, DXRBuffer& out) { std::ranges::copy(buffer, out.samples()); }));
    buffer.reserve(4096);
    ASSERT_TRUE(runner->addDevice(device("in", input), std::nullopt, [this](uint64_t, DXRBuffer& in) {
        buffer.assign(in.samples(), in.samples() + size_t{2} * in.frameCount());
    }));
    runner->start();
    EXPECT_EQ(runner->activeDevices().size(), 2U);
    const std::vector<AudioObjectID> aggregates = privateAggregates();
    ASSERT_EQ(aggregates.size(), 1U);
    const CXPlist made = compositionOf(aggregates[0]);
    EXPECT_EQ(made["name"], "DXRDeviceAggregate");
    EXPECT_EQ(made["master"], "in");
    ASSERT_EQ(made["subdevices"].size(), 2U);
    EXPECT_EQ(made["subdevices"][0]["uid"], "in");
    EXPECT_EQ(made["subdevices"][1]["drift"], 1);

    hal.stepCycles(200);
    EXPECT_EQ(runner->sampleTime() % 512, 0U);
    EXPECT_GT(runner->sampleTime(), 190U * 512);
    for (size_t frame = played.size() - 100 * 512; frame < played.size(); ++frame)
        ASSERT_EQ(played[frame], played[frame - 1] + step) << frame;

    const uint64_t before = runner->sampleTime();
    unplugged("in"); // the clock: the other goes on alone
    EXPECT_EQ(runner->activeDevices(), Devices{device("out", output)});
    EXPECT_TRUE(privateAggregates().empty());
    hal.stepCycles(10);
    EXPECT_EQ(runner->sampleTime(), before + 10U * 512);
    plugged(aDevice().uid("in").inputs(2).outputs(2).hears(simulatedRamp()).clockDomain(1));
    EXPECT_EQ(runner->activeDevices().size(), 2U);
    hal.stepCycles(10);
    EXPECT_GT(runner->sampleTime(), before + 15U * 512);
    runner->stop();
    EXPECT_TRUE(privateAggregates().empty());
}

// Devices of which each has a clock and a rate of its own: time goes on for all, at the pace of the first.
TEST_F(EngineCyclesTest, runsFourDevicesOfDifferentClocksAndRates)
{
    for (int i = 0; i < 4; ++i) {
        const std::string uid = "device " + std::to_string(i);
        plugged(aDevice()
                    .uid(uid)
                    .inputs(1)
                    .outputs(2)
                    .drift(i * 100.0 - 150.0)
                    .sampleRate(i % 2 == 0 ? 48000 : 44100));
        ASSERT_TRUE(
            runner->addDevice(device(uid, i % 2 == 0), std::nullopt, [this](uint64_t time, DXRBuffer&) {
                isInOrder = isInOrder && (lastTime == none || time == lastTime || time == lastTime + 512);
                lastTime = time;
                ++cycles;
            }));
    }
    runner->setSampleRate(48000);
    runner->setFrameCount(512);
    runner->start();
    EXPECT_EQ(runner->activeDevices().size(), 4U);
    hal.advance(1'000'000'000);
    EXPECT_TRUE(isInOrder);
    EXPECT_NEAR(static_cast<double>(runner->sampleTime()), 48000, 2048);
    EXPECT_EQ(cycles, 4 * (runner->sampleTime() / 512));
    unplugged("device 2");
    unplugged("device 0");
    EXPECT_EQ(runner->activeDevices().size(), 2U);
    const uint64_t before = runner->sampleTime();
    hal.advance(1'000'000'000);
    EXPECT_NEAR(static_cast<double>(runner->sampleTime() - before), 48000, 2048);
}

} // namespace
