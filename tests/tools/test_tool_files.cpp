#include "ToolAudio.h"

#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace {

/// A file that is written and read again.
class RecordedFile {
public:
    explicit RecordedFile(uint32_t channels)
        : _writer(std::make_unique<SoundFileWriter>(_path, SoundFormat::toWrite(_path, "", 0), channels,
                                                    48000.0, 0.0))
    {}
    ~RecordedFile() { std::remove(_path.c_str()); }
    SoundFileWriter& writer() { return *_writer; }
    std::vector<float> samples()
    {
        _writer->finish();
        SF_INFO info{};
        SNDFILE* const file = sf_open(_path.c_str(), SFM_READ, &info);
        std::vector<float> all(static_cast<size_t>(info.frames * info.channels));
        sf_readf_float(file, all.data(), info.frames);
        sf_close(file);
        return all;
    }

private:
    const std::string _path = "/tmp/dxr-recorded-" + std::to_string(getpid()) + ".wav";
    std::unique_ptr<SoundFileWriter> _writer;
};

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
    RecordedFile file(4);
    recorder->writeTo(file.writer(), UINT64_MAX, true);
    const std::vector<float> samples = file.samples();
    EXPECT_NEAR(static_cast<double>(samples.size()) / 4, 24000, 512);
    const float expected[] = {0.13F, 0.11F, 0.5F, 0.51F};
    for (size_t i = 0; i < samples.size(); ++i)
        ASSERT_NEAR(samples[i], expected[i % 4], 1e-6) << i;
}

TEST_F(ToolAudio, recordsAsLongAsItTook)
{
    const DeviceSelection input = plugged(ramp("in"), "in", Input);
    RunnerSession session(interrupts, 512, 48000);
    const CXRef<FileRecorder> recorder = FileRecorder::initWithInputs({input});
    recorder->addTo(session);
    ASSERT_TRUE(session.start());
    begin(session);
    recorder->open(session.sampleRate());
    RecordedFile file(2);
    for (int i = 0; i < 10; ++i) {
        if (i == 5)
            hal.loseCycles("in", 10);
        advance(session, second / 10);
        recorder->writeTo(file.writer(), UINT64_MAX, false);
    }
    session.stop();
    recorder->writeTo(file.writer(), UINT64_MAX, true);
    EXPECT_EQ(session.statistics().lostFrames(), 5120U);
    EXPECT_EQ(recorder->silentFrames(), 5120U);
    const std::vector<float> samples = file.samples();
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
            FilePlayer::initWithFile(SoundFileReader(path), outputs, {{{{0}}, {{1}}}, {{{0}}, {{1}}}});
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

TEST_F(ToolAudio, mixesChannelsThatADeviceDoesNotHave)
{
    const std::string path = "/tmp/dxr-six-" + std::to_string(getpid()) + ".wav";
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 6;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    const float levels[] = {0.1F, 0.2F,  0.3F,
                            0.9F, 0.05F, 0.06F}; // left, right, centre, deep, rear left and right
    for (int frame = 0; frame < 4800; ++frame)
        sf_writef_float(file, levels, 1);
    sf_close(file);
    const DeviceSelection output = plugged(player("out", played), "out", Output);
    for (const bool isDownmixed : {false, true}) {
        played.clear();
        SoundFileReader reader(path);
        reader.setFrameCount(3 * 4800 + 100); // again and again
        RunnerSession session(interrupts, 512, 48000);
        const CXRef<FilePlayer> player = FilePlayer::initWithFile(
            std::move(reader), {output}, {(isDownmixed ? downmixChannelMap : straightChannelMap)(6, output)});
        player->addTo(session);
        ASSERT_TRUE(session.start());
        begin(session);
        player->open();
        advance(session, second);
        session.stop();
        const float left =
            isDownmixed ? (0.1F + 0.70710678F * (0.3F + 0.05F)) / (1.0F + 2.0F * 0.70710678F) : 0.1F;
        std::erase(played, 0.0F);
        EXPECT_EQ(played.size(), 3U * 4800 + 100);
        EXPECT_TRUE(
            std::ranges::all_of(played, [&](float sample) { return std::abs(sample - left) < 1e-6F; }))
            << isDownmixed << ": " << (played.empty() ? 0.0F : played.front());
    }
    std::remove(path.c_str());
    struct {
        uint32_t frames, device;
    } const rows[] = {{1, 2}, {2, 1}, {5, 2}, {7, 2}, {8, 1}, {8, 6}, {31, 2}, {2, 2}};
    for (const auto& row : rows) {
        DeviceSelection few = output;
        few.channels.resize(row.device, 1);
        for (const std::vector<ChannelShare>& shares : downmixChannelMap(row.frames, few)) {
            float sum = 0.0F;
            for (const ChannelShare& share : shares) {
                EXPECT_LT(share.channel, row.frames);
                sum += share.gain;
            }
            EXPECT_LE(sum, 1.00001F) << row.frames << " on " << row.device;
        }
    }
}

} // namespace
