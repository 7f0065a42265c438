#include "FilePlayer.h"
#include "FileRecorder.h"
#include "LoopPatch.h"
#include "SineFit.h"
#include "ToolFailure.h"

#include <dxr/DXRDeviceManager.h>
#include <dxr/simulated.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <numbers>
#include <thread>
#include <unistd.h>

namespace {

using enum HALDirection;

// The tool's audio on a stepped clock: what should not be lost is compared sample by sample.

class ToolAudio : public testing::Test {
protected:
    static constexpr int64_t second = 1'000'000'000; // ticks of the stepped clock

    static SimulatedHardware& hardware()
    {
        static const CXRef<SimulatedHardware> backend = [] {
            CXRef<SimulatedHardware> made = SimulatedHardware::init(SimulatedClock::Stepped);
            HALSetHardwareDriver(made);
            return made;
        }();
        return *backend;
    }
    ~ToolAudio() override
    {
        for (const char* uid : {"in", "in2", "out", "out2"})
            hal.unplug(uid);
        settle();
    }

    /// Waits until the manager, and with it every runner, has heard of all changes.
    void settle()
    {
        for (int round = 0; round < 3; ++round) {
            hal.settle();
            DXRDeviceManager::queue().sync([] {});
        }
    }
    /// Waits until the runner has started so many new contexts, as work of its own queue.
    void settle(RunnerSession& session, uint64_t restarts)
    {
        settle();
        for (int look = 0; look < 10'000; ++look) {
            session.poll();
            if (session.statistics().restarts() == restarts)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        FAIL() << session.statistics().restarts() << " restarts";
    }
    DeviceSelection plugged(const SimulatedDeviceBuilder& device, const std::string& text,
                            HALDirection direction)
    {
        hal.plug(device);
        settle();
        return DeviceSelection::find(text, direction);
    }
    /// The description of a device that plays into `played`, first channel only.
    SimulatedDeviceBuilder player(const std::string& uid, std::vector<float>& into)
    {
        return aDevice().uid(uid).outputs(2).clockDomain(1).playsInto(SimulatedSink(
            [&into](uint64_t, uint32_t frames, uint32_t channels, double, const float* samples) {
                const CXRealtimeExemption exemption("the test keeps what was played");
                for (uint32_t frame = 0; samples && frame < frames; ++frame)
                    into.push_back(samples[frame * channels]);
            }));
    }
    static SimulatedDeviceBuilder ramp(const std::string& uid)
    {
        return aDevice().uid(uid).inputs(2).clockDomain(1).hears(simulatedRamp());
    }
    /// Lets the time pass that the devices take to settle, and then counts.
    void begin(RunnerSession& session)
    {
        while (!session.isSettled()) {
            hal.advance(second / 20);
            session.poll();
        }
        session.beginCounting();
    }
    /// Lets time pass in small steps, so that the session sees everything.
    void advance(RunnerSession& session, int64_t ticks)
    {
        for (; ticks > 0; ticks -= second / 10) {
            hal.advance(static_cast<uint64_t>(std::min(ticks, second / 10)));
            session.poll();
        }
    }
    static std::vector<int64_t> rampOf(const std::vector<float>& samples)
    {
        std::vector<int64_t> ramp;
        for (const float sample : samples)
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
    static uint64_t resynchronisations(const RunnerSession& session)
    {
        uint64_t all = 0;
        for (const DeviceTally& device : session.devices())
            all += device.resynchronisations() + device.lostFrames();
        return all;
    }

    SimulatedHardware& hal = hardware();
    Interrupts interrupts;
    std::vector<float> played, alsoPlayed;
};

TEST_F(ToolAudio, loopsEveryFrameToEveryOutputWhateverTheCycles)
{
    struct {
        uint32_t inputFrames, outputFrames, blockFrames; // 0: the devices decide
        double rate;
    } const rows[] = {{512, 512, 0, 48000},
                      {64, 64, 0, 96000},
                      {128, 1024, 0, 44100},
                      {1000, 100, 0, 48000},
                      {333, 512, 480, 48000}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.inputFrames) + " to " + std::to_string(row.outputFrames));
        played.clear();
        alsoPlayed.clear();
        const DeviceSelection input = plugged(ramp("in")
                                                  .sampleRate(row.rate)
                                                  .bufferFrameSize(row.inputFrames)
                                                  .bufferFrameSizeRange(row.inputFrames, row.inputFrames),
                                              "in", Input);
        const DeviceSelection output = plugged(player("out", played)
                                                   .sampleRate(row.rate)
                                                   .bufferFrameSize(row.outputFrames)
                                                   .bufferFrameSizeRange(row.outputFrames, row.outputFrames),
                                               "out", Output);
        const DeviceSelection also = plugged(player("out2", alsoPlayed).sampleRate(row.rate), "out2", Output);
        RunnerSession session(interrupts,
                              row.blockFrames != 0 ? std::optional(row.blockFrames) : std::nullopt, row.rate);
        const CXRef<LoopPatch> patch = LoopPatch::initWithSelections({input}, {output, also});
        patch->addTo(session);
        ASSERT_TRUE(session.start());
        begin(session);
        patch->open();
        advance(session, 5 * second);
        session.stop();
        EXPECT_EQ(session.statistics().gaps() + resynchronisations(session), 0U);
        EXPECT_GT(static_cast<double>(patch->framesPassed()), 4.9 * row.rate);
        for (const std::vector<float>* each : {&played, &alsoPlayed}) {
            const std::vector<int64_t> ramp = rampOf(*each);
            EXPECT_GT(static_cast<double>(ramp.size()), 4.5 * row.rate);
            EXPECT_EQ(jumpsIn(ramp), 0U);
        }
        for (const char* uid : {"in", "out", "out2"})
            hal.unplug(uid);
        settle();
    }
}

TEST_F(ToolAudio, seesEveryLostCycleAndIsExactBetweenThem)
{
    const SimulatedDeviceBuilder both =
        player("in", played).inputs(1).hears(simulatedRamp()).bufferFrameSize(64);
    const DeviceSelection input = plugged(both, "in", Input);
    RunnerSession session(interrupts, std::nullopt, std::nullopt);
    const CXRef<LoopPatch> patch =
        LoopPatch::initWithSelections({input}, {DeviceSelection::find("in", Output)});
    patch->addTo(session);
    ASSERT_TRUE(session.start());
    begin(session);
    patch->open();
    advance(session, second);
    for (int i = 0; i < 3; ++i) {
        hal.loseCycles("in", 2);
        advance(session, second / 2);
        settle(); // overloads that follow one another fast may be told at once
    }
    session.stop();
    EXPECT_EQ(session.statistics().gaps(), 3U);
    EXPECT_EQ(session.statistics().lostFrames(), 3U * 2 * 64);
    EXPECT_EQ(session.devices().front().overloads(), 3U);
    EXPECT_EQ(session.statistics().restarts(), 0U);
    EXPECT_LE(jumpsIn(rampOf(played)), 6U) << "where it is left, and where it is taken up again";
    EXPECT_GE(jumpsIn(rampOf(played)), 3U);
}

TEST_F(ToolAudio, goesOnWithoutADeviceAndTakesItUpAgain)
{
    const DeviceSelection input = plugged(ramp("in"), "in", Input);
    const DeviceSelection output = plugged(player("out", played), "out", Output);
    RunnerSession session(interrupts, 512, 48000);
    const CXRef<LoopPatch> patch = LoopPatch::initWithSelections({input}, {output});
    patch->addTo(session);
    ASSERT_TRUE(session.start());
    begin(session);
    patch->open();
    advance(session, second);
    const uint64_t before = session.sampleTime();
    hal.unplug("out");
    settle(session, 1);
    advance(session, second);
    EXPECT_NEAR(static_cast<double>(session.sampleTime() - before), 48000, 1024);
    played.clear();
    hal.plug(player("out", played));
    settle(session, 2);
    advance(session, 2 * second);
    const std::vector<std::string> news = session.takeNews();
    session.stop();
    ASSERT_EQ(news.size(), 2U);
    EXPECT_NE(news[0].find(output.shortName() + " is gone; the others go on"), std::string::npos) << news[0];
    EXPECT_NE(news[1].find(output.shortName() + " is back"), std::string::npos) << news[1];
    EXPECT_EQ(session.statistics().restarts(), 2U);
    EXPECT_EQ(session.statistics().stepsBack(), 0U);
    ASSERT_GT(played.size(), 48000U);
    EXPECT_EQ(jumpsIn(rampOf(std::vector<float>(played.end() - 24000, played.end()))), 0U);
}

TEST_F(ToolAudio, recordsChosenChannelsOfSeveralDevicesSideBySide)
{
    const auto voice = [](float base) {
        return [base](uint64_t, uint32_t frames, uint32_t channels, double, float* samples) {
            for (uint32_t i = 0; i < frames * channels; ++i)
                samples[i] = base + 0.01F * static_cast<float>(i % channels);
        };
    };
    const std::vector<DeviceSelection> inputs{
        plugged(aDevice().uid("in").inputs(4).clockDomain(1).hears(SimulatedSource(voice(0.1F))), "in:4,2",
                Input),
        plugged(aDevice().uid("in2").inputs(2).clockDomain(1).hears(SimulatedSource(voice(0.5F))), "in2",
                Input)};
    RunnerSession session(interrupts, 128, 48000);
    const CXRef<FileRecorder> recorder = FileRecorder::initWithInputs(inputs);
    recorder->addTo(session);
    ASSERT_TRUE(session.start());
    begin(session);
    recorder->open(session.sampleRate());
    advance(session, second / 2);
    session.stop();
    ASSERT_EQ(recorder->channelCount(), 4U);
    const uint64_t frames = recorder->ring().readableFrames();
    EXPECT_NEAR(static_cast<double>(frames), 24000, 512);
    const float expected[] = {0.13F, 0.11F, 0.5F, 0.51F};
    for (uint64_t frame = 0; frame < frames; ++frame)
        for (size_t channel = 0; channel < 4; ++channel)
            ASSERT_NEAR(recorder->ring().frameToRead(frame)[channel], expected[channel], 1e-6) << frame;
}

TEST_F(ToolAudio, playsEveryFrameOfAFileOnceOnEveryOutput)
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
        SCOPED_TRACE(cycle);
        played.clear();
        alsoPlayed.clear();
        const std::vector<DeviceSelection> outputs{
            plugged(player("out", played).sampleRate(44100).bufferFrameSize(cycle), "out", Output),
            plugged(player("out2", alsoPlayed).sampleRate(44100).bufferFrameSize(cycle), "out2", Output)};
        RunnerSession session(interrupts, cycle, 44100);
        const CXRef<FilePlayer> player =
            FilePlayer::initWithFile(SoundFileReader(path), outputs, {{0, 1}, {0, 1}});
        player->addTo(session);
        ASSERT_TRUE(session.start());
        begin(session);
        player->open();
        advance(session, 4 * second); // the file is not read on here, and the ring runs dry
        for (int i = 0; i < 20; ++i) {
            player->feed();
            advance(session, second / 10);
        }
        session.stop();
        EXPECT_GT(player->underruns(), 0U);
        EXPECT_TRUE(player->endTime());
        for (std::vector<float>* each : {&played, &alsoPlayed}) {
            std::erase(*each, 0.0F);
            const std::vector<int64_t> ramp = rampOf(*each);
            ASSERT_EQ(ramp.size(), static_cast<size_t>(frames));
            EXPECT_EQ(jumpsIn(ramp), 0U);
            EXPECT_EQ(ramp.front(), 1);
        }
        hal.unplug("out");
        hal.unplug("out2");
        settle();
    }
    std::remove(path.c_str());
}

TEST_F(ToolAudio, knowsChannelsFromNamesWithColons)
{
    hal.plug(aDevice().uid("in").name("Desk").inputs(8));
    hal.plug(aDevice().uid("in2").name("usb:1,2").inputs(8));
    hal.plug(aDevice().uid("out").name("usb").inputs(8));
    settle();
    struct {
        std::string text;
        std::string uid; // empty: no such device, or channel
        std::vector<uint32_t> channels;
    } const rows[] = {
        {"Desk", "in", {1, 2, 3, 4, 5, 6, 7, 8}},
        {"Desk:2", "in", {2}},
        {"Desk:3-6,1", "in", {3, 4, 5, 6, 1}},
        {"usb:1,2", "in2", {1, 2, 3, 4, 5, 6, 7, 8}}, // a name that is all of it goes first
        {"usb:1,2:1,2", "in2", {1, 2}},
        {R"({"uid":"in"}:7)", "in", {7}},
        {R"({"uid":"in"})", "in", {1, 2, 3, 4, 5, 6, 7, 8}},
        {"Desk:9", "", {}},
        {"Desk:0", "", {}},
        {"Desk:6-3", "", {}},
        {"Desk:1,", "", {}},
        {"Desk:", "", {}},
        {"Desk:1-4294967295", "", {}},
        {"Desk:99999999999", "", {}},
        {":7", "", {}},
        {"nobody:1", "", {}},
    };
    for (const auto& row : rows) {
        if (row.uid.empty()) {
            EXPECT_THROW(DeviceSelection::find(row.text, Input), ToolFailure) << row.text;
            continue;
        }
        const DeviceSelection found = DeviceSelection::find(row.text, Input);
        EXPECT_EQ(found.report.uid, row.uid) << row.text;
        EXPECT_EQ(found.channels, row.channels) << row.text;
    }
    EXPECT_THROW(DeviceSelection::findAll({"Desk:1", "in:2"}, Input), ToolFailure) << "the same twice";
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
