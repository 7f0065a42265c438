#include "AudioLoop.h"
#include "FilePlayer.h"
#include "SineFit.h"
#include "ToolFailure.h"

#include <dxr/simulated.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <numbers>
#include <thread>
#include <unistd.h>

namespace {

// The tool's audio on a stepped clock: what should not be lost is compared sample by sample.

class ToolAudio : public testing::Test {
protected:
    static SimulatedBackend& hardware()
    {
        static const CXRef<SimulatedBackend> backend = [] {
            CXRef<SimulatedBackend> made = SimulatedBackend::init(SimulatedClock::Stepped);
            HALSetBackend(made);
            return made;
        }();
        return *backend;
    }
    ~ToolAudio() override
    {
        hal.unplug("in");
        hal.unplug("out");
    }

    /// Plugs a device that plays into `played`, first channel only.
    DeviceReport plugOutput(SimulatedDeviceBuilder device)
    {
        device.playsInto(
            SimulatedSink([this](uint64_t, uint32_t frames, uint32_t channels, double, const float* samples) {
                const CXRealtimeExemption exemption("the test keeps what was played");
                for (uint32_t frame = 0; samples && frame < frames; ++frame)
                    played.push_back(samples[frame * channels]);
            }));
        return *DeviceReport::read(hal.plug(device));
    }
    DeviceReport plugInput(SimulatedDeviceBuilder device)
    {
        return *DeviceReport::read(hal.plug(device.hears(simulatedRamp())));
    }
    /// What was played, as frames of the ramp; the silence before the first is left out.
    std::vector<int64_t> playedRamp() const
    {
        std::vector<int64_t> ramp;
        for (const float sample : played)
            if (sample != 0.0F || !ramp.empty())
                ramp.push_back(static_cast<int64_t>(sample * 16777216.0F));
        return ramp;
    }
    static uint64_t jumpsIn(const std::vector<int64_t>& ramp)
    {
        uint64_t jumps = 0;
        for (size_t i = 1; i < ramp.size(); ++i)
            jumps += ramp[i] != ramp[i - 1] + 1;
        return jumps;
    }

    SimulatedBackend& hal = hardware();
    Interrupts interrupts;
    AudioRun run{interrupts};
    std::vector<float> played;
};

TEST_F(ToolAudio, loopsEveryFrameWhateverTheCycles)
{
    struct {
        uint32_t inputFrames, outputFrames;
        double rate;
    } const rows[] = {
        {512, 512, 48000}, {64, 64, 96000}, {128, 1024, 44100}, {1000, 100, 48000}, {333, 512, 48000}};
    for (const auto& row : rows) {
        played.clear();
        const DeviceReport input =
            plugInput(aDevice().uid("in").inputs(2).sampleRate(row.rate).bufferFrameSize(row.inputFrames));
        const DeviceReport output = plugOutput(
            aDevice().uid("out").outputs(2).sampleRate(row.rate).bufferFrameSize(row.outputFrames));
        AudioRun each(interrupts);
        const CXRef<AudioLoop> loop = AudioLoop::initWithDevices(input, output);
        loop->addTo(each);
        ASSERT_TRUE(each.start());
        hal.advance(5'000'000'000);
        each.stop();
        const std::vector<int64_t> ramp = playedRamp();
        EXPECT_GT(static_cast<double>(ramp.size()), 4.5 * row.rate);
        EXPECT_EQ(jumpsIn(ramp), 0U) << row.inputFrames << " to " << row.outputFrames;
        EXPECT_EQ(loop->framesMoved(), ramp.size());
        EXPECT_EQ(loop->underruns() + loop->overruns() + loop->inputMonitor().gaps() +
                      loop->outputMonitor().gaps(),
                  0U);
        hal.unplug("in");
        hal.unplug("out");
    }
}

TEST_F(ToolAudio, seesEveryLostCycleAndIsExactBetweenThem)
{
    const DeviceReport input = plugInput(aDevice().uid("in").inputs(1).bufferFrameSize(64));
    const DeviceReport output = plugOutput(aDevice().uid("out").outputs(1).bufferFrameSize(64));
    const CXRef<AudioLoop> loop = AudioLoop::initWithDevices(input, output);
    loop->addTo(run);
    ASSERT_TRUE(run.start());
    hal.advance(1'000'000'000);
    for (int i = 0; i < 3; ++i) {
        hal.loseCycles("in", 2);
        hal.advance(500'000'000);
        hal.settle(); // overloads that follow one another fast may be told at once
    }
    hal.loseCycles("out", 5);
    hal.advance(500'000'000);
    hal.settle();
    run.stop();
    EXPECT_EQ(loop->inputMonitor().gaps(), 3U);
    EXPECT_EQ(loop->inputMonitor().lostFrames(), 3U * 2 * 64);
    EXPECT_EQ(loop->inputMonitor().overloads(), 3U);
    EXPECT_EQ(loop->outputMonitor().lostFrames(), 5U * 64);
    // The margin of the ring bridges the lost cycles: nothing is heard but what the input has not heard itself.
    EXPECT_EQ(loop->underruns(), 0U);
    EXPECT_EQ(jumpsIn(playedRamp()), 3U);
}

TEST_F(ToolAudio, keepsTheDelayWhenClocksDriftApart)
{
    for (const double drift : {2000.0, -2000.0}) {
        played.clear();
        const DeviceReport input = plugInput(aDevice().uid("in").inputs(1).bufferFrameSize(256).drift(drift));
        const DeviceReport output = plugOutput(aDevice().uid("out").outputs(1).bufferFrameSize(256));
        AudioRun each(interrupts);
        const CXRef<AudioLoop> loop = AudioLoop::initWithDevices(input, output);
        loop->addTo(each);
        ASSERT_TRUE(each.start());
        hal.advance(60'000'000'000);
        each.stop();
        // 5760 frames too many or too few in a minute, and a jump for each margin's worth of them.
        EXPECT_GT(drift > 0 ? loop->overrunFrames() : loop->underrunFrames(), 4000U);
        EXPECT_LT(loop->overruns() + loop->underruns(), 16U);
        hal.unplug("in");
        hal.unplug("out");
    }
}

TEST_F(ToolAudio, copiesWithinOneDevice)
{
    const DeviceReport device = plugOutput(aDevice()
                                               .uid("in")
                                               .inputs(1)
                                               .outputs(4)
                                               .stereoChannels(HALDirection::Output, 1, 2)
                                               .hears(simulatedRamp()));
    const CXRef<AudioLoop> loop = AudioLoop::initWithDevices(device, device);
    loop->addTo(run);
    ASSERT_TRUE(run.start());
    hal.advance(1'000'000'000);
    run.stop();
    EXPECT_EQ(jumpsIn(playedRamp()), 0U);
    EXPECT_EQ(loop->framesMoved(), playedRamp().size());
}

TEST_F(ToolAudio, playsEveryFrameOfAFileOnce)
{
    constexpr sf_count_t frames = 200'003; // no multiple of any cycle, and more than the ring holds
    const std::string path = "/tmp/dxr-play-" + std::to_string(getpid()) + ".wav";
    SF_INFO info{};
    info.samplerate = 44100;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    for (sf_count_t frame = 1; frame <= frames; ++frame) {
        const float pair[] = {static_cast<float>(frame) / 16777216.0F, -1.0F};
        sf_writef_float(file, pair, 1);
    }
    sf_close(file);
    for (const uint32_t cycle : {64U, 128U, 512U, 1024U}) {
        played.clear();
        const DeviceReport output =
            plugOutput(aDevice().uid("out").outputs(2).sampleRate(44100).bufferFrameSize(cycle));
        AudioRun each(interrupts);
        const CXRef<FilePlayer> player = FilePlayer::initWithFile(SoundFileReader(path), output, {0, 1});
        player->addTo(each);
        ASSERT_TRUE(each.start());
        hal.advance(4'000'000'000); // the file is read too slowly here, and the ring runs dry
        for (int i = 0; i < 20; ++i) {
            player->feed();
            hal.advance(100'000'000);
        }
        each.stop();
        EXPECT_GT(player->underruns(), 0U);
        std::erase(played, 0.0F);
        const std::vector<int64_t> ramp = playedRamp();
        ASSERT_EQ(ramp.size(), static_cast<size_t>(frames)) << cycle;
        EXPECT_EQ(jumpsIn(ramp), 0U);
        EXPECT_EQ(ramp.front(), 1);
        hal.unplug("out");
    }
    std::remove(path.c_str());
}

TEST_F(ToolAudio, saysThatADeviceIsGone)
{
    const DeviceReport input = plugInput(aDevice().uid("in").inputs(1));
    const DeviceReport output = plugOutput(aDevice().uid("out").outputs(1));
    const CXRef<AudioLoop> loop = AudioLoop::initWithDevices(input, output);
    loop->addTo(run);
    ASSERT_TRUE(run.start());
    EXPECT_TRUE(run.wait(1));
    hal.unplug("out");
    EXPECT_THROW(run.wait(1), ToolFailure);
}

TEST(FrameRing, handsEveryFrameOverInOrderBetweenTwoThreads)
{
    constexpr uint64_t total = 300'000;
    FrameRing ring(2, 61);
    std::thread writer([&ring] {
        for (uint64_t written = 0; written < total;) {
            const uint64_t count = std::min({ring.writableFrames(), total - written, written % 29 + 1});
            for (uint64_t i = 0; i < count; ++i) {
                ring.frameToWrite(i)[0] = static_cast<float>(written + i);
                ring.frameToWrite(i)[1] = -static_cast<float>(written + i);
            }
            ring.commitWrite(count);
            written += count;
            if (count == 0)
                std::this_thread::yield();
        }
    });
    uint64_t wrong = 0;
    for (uint64_t read = 0; read < total;) {
        const uint64_t count = std::min(ring.readableFrames(), read % 31 + 1);
        for (uint64_t i = 0; i < count; ++i)
            wrong += ring.frameToRead(i)[0] != static_cast<float>(read + i) ||
                     ring.frameToRead(i)[1] != -static_cast<float>(read + i);
        ring.commitRead(count);
        read += count;
        if (count == 0)
            std::this_thread::yield();
    }
    writer.join();
    EXPECT_EQ(wrong, 0U);
}

TEST(SineFit, measuresNoiseThatIsThereAndNoneThatIsNot)
{
    std::vector<float> tone(48000);
    const auto fill = [&tone](double noise, size_t lostAt) {
        uint32_t random = 1;
        for (size_t i = 0; i < tone.size(); ++i) {
            random = random * 1664525 + 1013904223;
            const double frame = static_cast<double>(i + (i >= lostAt ? 64 : 0));
            tone[i] = static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * 997 * frame / 48000 + 1.0) +
                                         noise * (random / 2147483648.0 - 1.0));
        }
    };
    fill(0.0, SIZE_MAX);
    EXPECT_GT(SineFit::of(tone, 997, 48000).signalToNoise, 140.0);
    EXPECT_NEAR(SineFit::of(tone, 997, 48000).amplitude, 0.5, 1e-6);
    fill(0.001, SIZE_MAX); // uniform noise of 0.001 has an energy of 0.001² / 3
    EXPECT_NEAR(SineFit::of(tone, 997, 48000).signalToNoise, 10 * std::log10(0.125 * 3 / 1e-6), 0.2);
    fill(0.0, 24100);
    EXPECT_LT(SineFit::of(tone, 997, 48000).worstBlock, 20.0);
    EXPECT_EQ(SineFit::of({}, 997, 48000).signalToNoise, 0.0);
    fill(0.0, SIZE_MAX);
    const SineFit found = SineFit::nearTo(std::span(tone).first(4800), 997.2, 48000);
    EXPECT_NEAR(found.frequency, 997, 1e-5);
    EXPECT_GT(found.signalToNoise, 120.0);
}

} // namespace
