#include "ToolAudio.h"
#include "WaveFile.h"

#include <cmath>
#include <filesystem>
#include <unistd.h>

namespace {

/// Each test has a separate file, which the destructor removes.
class ToolFiles : public ToolAudio {
protected:
    ~ToolFiles() override { std::filesystem::remove(path); }

    std::vector<float> written(SoundFileWriter& writer, uint32_t channels) const
    {
        writer.finish();
        return samplesOf(path, channels);
    }
    SoundFileWriter writer(uint32_t channels) const
    {
        return {path, SoundFormat::toWrite(path, "", 0), channels, 48000.0, 0.0};
    }

    const std::string path = "/tmp/dxr-files-" + std::to_string(getpid()) + ".wav";
};

TEST_F(ToolFiles, recordsChosenChannelsOfSeveralDevicesSideBySide)
{
    const auto voice = [](float base) {
        return SimulatedSource([base](uint64_t, uint32_t frames, uint32_t channels, double, float* samples) {
            for (uint32_t i = 0; i < frames * channels; ++i)
                samples[i] = base + 0.01F * static_cast<float>(i % channels);
        });
    };
    const std::vector<DeviceSelection> inputs{
        plugged(aDevice().uid("in").inputs(4).clockDomain(1).hears(voice(0.1F)), "in:4,2", Input),
        plugged(aDevice().uid("in2").inputs(2).clockDomain(1).hears(voice(0.5F)), "in2", Input)};
    RunnerSession session(interrupts, 128, 48000);
    const CXRef<FileRecorder> recorder = startRecorder(session, inputs);
    advance(session, second / 2);
    session.stop();
    ASSERT_EQ(recorder->channelCount(), 4U);
    SoundFileWriter file = writer(4);
    recorder->writeTo(file, UINT64_MAX, true);
    const std::vector<float> samples = written(file, 4);
    EXPECT_NEAR(static_cast<double>(samples.size()) / 4, 24000, 512);
    const float expected[] = {0.13F, 0.11F, 0.5F, 0.51F};
    for (size_t i = 0; i < samples.size(); ++i)
        ASSERT_NEAR(samples[i], expected[i % 4], 1e-6) << i;
}

TEST_F(ToolFiles, recordsAsLongAsItTook)
{
    const DeviceSelection input = plugged(ramp("in"), "in", Input);
    RunnerSession session(interrupts, 512, 48000);
    const CXRef<FileRecorder> recorder = startRecorder(session, {input});
    SoundFileWriter file = writer(2);
    for (int i = 0; i < 10; ++i) {
        if (i == 5)
            hal.loseCycles("in", 10);
        advance(session, second / 10);
        recorder->writeTo(file, UINT64_MAX, false);
    }
    session.stop();
    recorder->writeTo(file, UINT64_MAX, true);
    EXPECT_EQ(session.lostFrames(), 5120U);
    EXPECT_EQ(recorder->silentFrames(), 5120U);
    const std::vector<float> samples = written(file, 2);
    EXPECT_NEAR(static_cast<double>(samples.size()) / 2, 48000, 1024);
    uint64_t silent = 0;
    for (size_t frame = 0; 2 * frame < samples.size(); ++frame) {
        silent += samples[2 * frame] == 0.0F;
        ASSERT_TRUE(samples[2 * frame] == 0.0F ||
                    (samples[2 * frame] - samples[0]) * 16777216.0F == static_cast<float>(frame))
            << "each frame at its time: " << frame;
    }
    EXPECT_EQ(silent, 5120U);
}

TEST_F(ToolFiles, playsEveryFrameOnceOnEveryOutput)
{
    constexpr int frames = 200'003; // not a multiple of any cycle length, and longer than the ring
    writeWave(path, 44100, 2, frames, [](int frame, int channel) {
        return channel == 0 ? static_cast<float>(frame + 1) / 16777216.0F : -1.0F;
    });
    for (const uint32_t cycle : {64U, 128U, 512U, 1024U}) {
        SCOPED_TRACE(cycle);
        const std::vector<DeviceSelection> outputs{
            plugged(player("out", played).sampleRate(44100).bufferFrameSize(cycle), "out", Output),
            plugged(player("out2", alsoPlayed).sampleRate(44100).bufferFrameSize(cycle), "out2", Output)};
        RunnerSession session(interrupts, cycle, 44100);
        const CXRef<FilePlayer> player =
            FilePlayer::initWithFile(SoundFileReader(path), outputs, {{{{0}}, {{1}}}, {{{0}}, {{1}}}});
        start(session, player);
        player->open();
        advance(session, 4 * second); // nothing reads the file meanwhile, so the ring runs empty
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
        unplugAll();
    }
}

TEST_F(ToolFiles, mixesChannelsThatADeviceDoesNotHave)
{
    const float levels[] = {0.1F, 0.2F, 0.3F, 0.9F, 0.05F, 0.06F}; // L, R, centre, deep, rear L, rear R
    writeWave(path, 48000, 6, 4800, [&](int, int channel) { return levels[channel]; });
    const DeviceSelection output = plugged(player("out", played), "out", Output);
    for (const bool isDownmixed : {false, true}) {
        played.clear();
        SoundFileReader reader(path);
        reader.setFrameCount(3 * 4800 + 100); // beyond the end: the file repeats
        RunnerSession session(interrupts, 512, 48000);
        const CXRef<FilePlayer> player = FilePlayer::initWithFile(
            std::move(reader), {output}, {(isDownmixed ? downmixChannelMap : straightChannelMap)(6, output)});
        start(session, player);
        player->open();
        advance(session, second);
        session.stop();
        const float left =
            isDownmixed ? (0.1F + 0.70710678F * (0.3F + 0.05F)) / (1.0F + 2.0F * 0.70710678F) : 0.1F;
        std::erase(played, 0.0F);
        EXPECT_EQ(played.size(), 3U * 4800 + 100);
        for (const float sample : played)
            ASSERT_NEAR(sample, left, 1e-6F) << isDownmixed;
    }
    const std::pair<uint32_t, uint32_t> rows[] = {{1, 2}, {2, 1}, {5, 2},  {7, 2},
                                                  {8, 1}, {8, 6}, {31, 2}, {2, 2}};
    for (const auto& [frames, device] : rows) {
        DeviceSelection few = output;
        few.channels.resize(device, 1);
        for (const std::vector<ChannelShare>& shares : downmixChannelMap(frames, few)) {
            float sum = 0.0F;
            for (const ChannelShare& share : shares) {
                EXPECT_LT(share.channel, frames);
                sum += share.gain;
            }
            EXPECT_LE(sum, 1.00001F) << frames << " on " << device;
        }
    }
}

} // namespace
