#include "FilePlayer.h"
#include "FileRecorder.h"
#include "LoopPatch.h"
#include "Ramp.h"
#include "SimulatedComputer.h"
#include "Text.h"
#include "WaveFile.h"

#include <dxr/DXRDeviceManager.h>

#include <algorithm>
#include <filesystem>
#include <unistd.h>

using enum HALDirection;

namespace {

/// Tests the tool's audio on the stepped clock, where every sample can be compared.
class ToolAudio : public SimulatedComputer {
protected:
    static constexpr int64_t second = 1'000'000'000; // ticks of the stepped clock

    ~ToolAudio() override { std::filesystem::remove(path); }

    /// Waits until the manager and every runner have processed all changes.
    void settle()
    {
        for (int round = 0; round < 3; ++round) {
            hal.settle();
            DXRDeviceManager::queue().sync([] {});
        }
    }
    DeviceSelection plugged(const SimulatedDeviceBuilder& device, const std::string& text,
                            HALDirection direction)
    {
        hal.plug(device);
        settle();
        return DeviceSelection::find(text, direction);
    }
    static SimulatedDeviceBuilder player(const std::string& uid, std::vector<float>& into)
    {
        return aDevice().uid(uid).outputs(2).clockDomain(1).playsInto(sinkTo(into));
    }
    /// A device whose channels have the same ramp, 0.25 apart.
    static SimulatedDeviceBuilder ramps(const std::string& uid, uint32_t channelCount)
    {
        const SimulatedSource source([](uint64_t sampleTime, uint32_t frames, uint32_t channels, double,
                                        float* samples) {
            for (uint32_t i = 0; i < frames * channels; ++i)
                samples[i] = rampSample(sampleTime + i / channels) + 0.25F * static_cast<float>(i % channels);
        });
        return aDevice().uid(uid).inputs(channelCount).clockDomain(1).hears(source);
    }
    /// Starts the session and waits until it has settled.
    template <class Part> CXRef<Part> started(RunnerSession& session, const CXRef<Part>& part)
    {
        part->addTo(session);
        EXPECT_TRUE(session.start());
        while (!session.isCounting())
            advance(session, second / 20);
        return part;
    }
    /// Advances in small steps, so that the session's polls miss nothing.
    void advance(RunnerSession& session, int64_t ticks)
    {
        for (; ticks > 0; ticks -= second / 10) {
            hal.advance(static_cast<uint64_t>(std::min(ticks, second / 10)));
            session.poll();
        }
        for (std::vector<float>* each : {&played, &alsoPlayed})
            std::erase(*each, 0.0F);
    }

    Interrupts interrupts;
    std::vector<float> played, alsoPlayed; // without silence
    const std::string path = "/tmp/dxr-files-" + std::to_string(getpid()) + ".wav";
};

TEST_F(ToolAudio, loopsEveryFrameToEveryOutputWithAnyCycles)
{
    constexpr double rate = 44100;
    const auto fixed = [](SimulatedDeviceBuilder device, uint32_t frames) {
        return device.sampleRate(rate).bufferFrameSize(frames).bufferFrameSizeRange(frames, frames);
    };
    const DeviceSelection source = plugged(fixed(ramps("in", 1), 333), "in", Input);
    const DeviceSelection sink = plugged(fixed(player("out", played), 512), "out", Output);
    const DeviceSelection also = plugged(player("out2", alsoPlayed).sampleRate(rate), "out2", Output);
    RunnerSession session(interrupts, 480, rate);
    const auto patch = started(session, LoopPatch::initWithSelections({source}, {sink, also}));
    patch->setOpen();
    advance(session, 5 * second);
    session.stop();
    EXPECT_EQ(session.lostFrames(), 0U);
    EXPECT_NEAR(static_cast<double>(patch->framesPassed()), 5 * rate, 0.1 * rate);
    for (const std::vector<float>& each : {played, alsoPlayed}) {
        EXPECT_GT(static_cast<double>(each.size()), 4.5 * rate);
        EXPECT_EQ(breaksOf(each), 0U);
    }
}

TEST_F(ToolAudio, knowsChannelsFromNamesWithColons)
{
    hal.plug(aDevice().uid("in").name("Desk").inputs(4));
    hal.plug(aDevice().uid("in2").name("usb:1,2").inputs(4));
    hal.plug(aDevice().uid("out").name("usb").inputs(4));
    settle();
    const std::tuple<const char*, const char*, std::vector<uint32_t>> rows[] = {
        {"Desk:2-4,1", "in", {2, 3, 4, 1}},
        {"usb:1,2", "in2", {1, 2, 3, 4}}, // complete names take precedence
        {"usb:1,2:1,2", "in2", {1, 2}},
        {R"({"uid":"in"}:3)", "in", {3}},
        {R"({"uid":"in"})", "in", {1, 2, 3, 4}},
    };
    for (const auto& [text, uid, channels] : rows) {
        const DeviceSelection found = DeviceSelection::find(text, Input);
        EXPECT_EQ(found.report.uid, uid) << text;
        EXPECT_EQ(found.channels, channels) << text;
    }
    for (const char* text : {"Desk:5", "Desk:0", "Desk:4-3", "Desk:1,", "Desk:", "Desk:1-4294967295",
                             "Desk:99999999999", ":3", "nobody:1"})
        EXPECT_THROW(DeviceSelection::find(text, Input), ToolFailure) << text;
}

TEST_F(ToolAudio, recordsChosenChannelsOfSeveralDevicesAsLongAsItTook)
{
    std::vector<DeviceSelection> inputs{plugged(ramps("in", 4), "in:4,2", Input),
                                        plugged(ramps("in2", 2), "in2", Input)};
    const float channels[] = {3, 1, 0, 1}; // in the file
    for (const uint64_t lostFrames : {0U, 5120U}) {
        RunnerSession session(interrupts, 512, 48000);
        const auto recorder = started(session, FileRecorder::initWithInputs(inputs));
        recorder->open(session.sampleRate());
        const uint32_t columns = recorder->channelCount();
        SoundFileWriter file(path, SoundFormat::toWrite(path, "", 0), columns, 48000.0, 0.0);
        for (int i = 0; i < 10; ++i) {
            if (i == 5)
                hal.loseCycles("in", static_cast<uint32_t>(lostFrames / 512));
            advance(session, second / 10);
            recorder->writeTo(file, UINT64_MAX, false);
        }
        const uint64_t overloads = lostFrames > 0 ? 1 : 0; // reported on another thread
        EXPECT_TRUE(eventually([&] { return session.devices().front().overloads() == overloads; }));
        session.stop();
        recorder->writeTo(file, UINT64_MAX, true);
        file.finish();
        EXPECT_EQ(session.lostFrames(), lostFrames);
        EXPECT_EQ(session.statistics().gaps, lostFrames > 0 ? 1U : 0U);
        EXPECT_EQ(session.statistics().restarts, 0U);
        EXPECT_EQ(recorder->silentFrames(), lostFrames);
        const std::vector<float> samples = samplesOf(path, columns);
        EXPECT_NEAR(static_cast<double>(samples.size()) / columns, 48000, 1024);
        for (uint32_t column = 0; column < columns; ++column)
            EXPECT_EQ(std::floor(samples.at(column) * 4.0F), channels[column]) << column;
        uint64_t silent = 0;
        for (size_t i = 0; i < samples.size(); ++i) {
            silent += samples[i] == 0.0F;
            ASSERT_TRUE(samples[i] == 0.0F ||
                        samples[i] - samples[i % columns] == static_cast<float>(i / columns) * rampStep)
                << "each frame at its time: " << i;
        }
        EXPECT_EQ(silent, lostFrames * columns);
        inputs.pop_back(); // without an aggregate, exactly these cycles are lost
    }
}

TEST_F(ToolAudio, playsEveryFrameOfAFileOnceOnEveryOutput)
{
    constexpr int frames = 200'003; // not a multiple of any cycle length, and longer than the ring
    writeWave(path, 44100, 2, frames, [](int frame, int channel) {
        return channel == 0 ? rampSample(static_cast<uint64_t>(frame)) : -1.0F;
    });
    const std::vector<DeviceSelection> outputs{
        plugged(player("out", played).sampleRate(44100).bufferFrameSize(64), "out", Output),
        plugged(player("out2", alsoPlayed).sampleRate(44100).bufferFrameSize(1024), "out2", Output)};
    RunnerSession session(interrupts, 441, 44100); // the ring holds no whole number of blocks
    const auto player = started(
        session, FilePlayer::initWithFile(SoundFileReader(path), outputs, {{{{0}}, {{1}}}, {{{0}}, {{1}}}}));
    player->open();
    advance(session, 4 * second); // nothing reads the file meanwhile, so the ring runs empty
    for (int i = 0; i < 20; ++i) {
        player->feed();
        advance(session, second / 10);
    }
    session.stop();
    EXPECT_GT(player->underruns(), 0U);
    EXPECT_TRUE(player->endTime());
    for (const std::vector<float>& each : {played, alsoPlayed}) {
        ASSERT_EQ(each.size(), static_cast<size_t>(frames));
        EXPECT_EQ(breaksOf(each), 0U);
        EXPECT_EQ(each.front(), rampSample(0));
    }
}

TEST_F(ToolAudio, mixesChannelsThatADeviceDoesNotHave)
{
    const float levels[] = {0.1F, 0.2F, 0.3F, 0.9F, 0.05F, 0.06F}; // L, R, centre, deep, rear L, rear R
    writeWave(path, 48000, 6, 4800, [&](int, int channel) { return levels[channel]; });
    const DeviceSelection sink = plugged(player("out", played), "out", Output);
    for (const bool isDownmixed : {false, true}) {
        played.clear();
        SoundFileReader reader(path);
        reader.setFrameCount(3 * 4800 + 100); // beyond the end: the file repeats
        RunnerSession session(interrupts, 512, 48000);
        const auto map = (isDownmixed ? downmixChannelMap : straightChannelMap)(6, sink);
        started(session, FilePlayer::initWithFile(std::move(reader), {sink}, {map}))->open();
        advance(session, second);
        session.stop();
        const float left =
            isDownmixed ? (0.1F + 0.70710678F * (0.3F + 0.05F)) / (1.0F + 2.0F * 0.70710678F) : 0.1F;
        EXPECT_EQ(played.size(), 3U * 4800 + 100);
        for (const float sample : played)
            ASSERT_NEAR(sample, left, 1e-6F) << isDownmixed;
    }
}

TEST(FrameRing, handsEveryFrameOverInOrderBetweenTwoThreads)
{
    constexpr uint64_t total = 300'000;
    FrameRing ring(1, 61);
    const std::jthread writer([&ring] {
        for (uint64_t written = 0; written < total;) {
            const uint64_t count = std::min({ring.writableFrames(), total - written, written % 29 + 1});
            for (uint64_t i = 0; i < count; ++i)
                *ring.frameToWrite(i) = static_cast<float>(written + i);
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
            wrong += *ring.frameToRead(i) != static_cast<float>(read + i);
        ring.commitRead(count);
        read += count;
        if (count == 0)
            std::this_thread::yield();
    }
    EXPECT_EQ(wrong, 0U);
}

} // namespace
