#include "DxrCommand.h"

#include "SineFit.h"

#include <cmath>
#include <csignal>
#include <numbers>
#include <sndfile.h>
#include <unistd.h>

namespace {

using nlohmann::json;

TEST_F(DxrCommand, refusesBadSoundFilesWithOneLine)
{
    struct {
        const char* why;
        std::string path;
    } const rows[] = {
        {"not there", path("none.wav")},
        {"a folder", folder},
        {"empty", file("empty.wav")},
        {"no sound file", file("text.wav", "Dear diary, today I recorded nothing at all.\n")},
        {"half a header", file("header.wav", wave(800, 0).substr(0, 9))},
        {"header only", file("headeronly.wav", wave(800, 0))},
        {"cut short by a byte", file("short.wav", wave(800, 799))},
        {"no frames", file("noframes.wav", wave(0, 0))},
        {"no channels", file("nochannels.wav", wave(800, 800).replace(22, 2, 2, '\0'))},
        {"no rate", file("norate.wav", wave(800, 800).replace(24, 4, 4, '\0'))},
        {"a chunk that never ends", file("endless.wav", "RIFF\xFF\xFF\xFF\x7FWAVELIST\xFF\xFF\xFF\x7F")},
        {"a name for a terminal", path("\x1B]0;owned\x07.wav")},
    };
    for (const auto& row : rows) {
        for (const ToolResult& result :
             {runTool({"play", row.path, "--out", "sim-speakers", "--simulated"}),
              runTool({"resample", row.path, path("out.wav"), "--rate", "44100"})}) {
            EXPECT_EQ(result.status, 1) << row.why;
            EXPECT_EQ(linesOf(result.errors).size(), 1U) << row.why << ": " << result.errors;
            EXPECT_FALSE(hasControls(result.errors)) << row.why;
        }
    }
    EXPECT_EQ(runTool({"play", file("good.wav", wave(800, 800)), "--out", "speakers", "--simulated"}).status,
              0);
}

TEST_F(DxrCommand, standsInAPipeline)
{
    const std::string record = "d record - --in sim-ramp --rate 48000 --seconds 0.25 ";
    struct {
        const char* why;
        std::string command;
        int status;
        const char* says;
    } const rows[] = {
        {"WAV", record + "| d play -", 0, "12,000 frames played"},
        {"FLAC", record + "--format flac | d play -", 0, "12,000 frames played"},
        {"Ogg, which is read from its end, too", record + "--format ogg | d play -", 0,
         "12,000 frames played"},
        {"Opus", record + "--format opus | d play -", 0, "12,000 frames played"},
        {"raw", record + "--format s16 | d play - --format s16:48000:2", 0, "12,000 frames played"},
        {"raw of another rate", record + "--format f32 | d play - --format f32:96000:1", 0,
         "24,000 frames played"},
        {"a header with a length, and more behind",
         "d record x.wav --in sim-ramp --seconds 0.25 --rate 48000 --quiet; "
         "(cat x.wav; echo tail) | d play -",
         0, "12,000 frames played"},
        {"FLAC that came through a pipe into a file", record + "--format flac > x.flac; d play x.flac", 0,
         "12,000 frames"},
        {"by its name", "d record x.flac --in sim-ramp --seconds 0.25 --quiet; head -c 4 x.flac", 0, "fLaC"},
        {"a FIFO", "mkfifo f; " + record + "> f & d play f", 0, "12,000 frames played"},
        {"only sound on standard output", record + "| head -c 4", 1,
         "RIFF"}, // and the end of the pipe is an error
        {"a reader that goes", "d record - --in sim-ramp | head -c 4", 1, "RIFF"},
        {"a full disk", "d record - --in sim-ramp > /dev/full", 1, ""},
        {"nothing comes", "d play - < /dev/null", 1, ""},
        {"no sound comes", "echo Dear diary, nothing today. | d play -", 1, ""},
        {"half a header", record + "| head -c 30 | d play -", 1, ""},
        {"no default", "d play - --quiet < x.wav; d loop --seconds 0.1 --quiet", 0, ""},
    };
    for (const auto& row : rows) {
        const ToolResult result = pipeline(row.command);
        EXPECT_EQ(result.status, row.status) << row.why << "\n" << result.output << result.errors;
        EXPECT_NE(result.output.find(row.says), std::string::npos) << row.why << "\n"
                                                                   << result.output << result.errors;
    }
    pipeline(record + "> y.wav");
    int channels = 0;
    const std::string bytes = contentOf(path("y.wav"));
    EXPECT_EQ(bytes.substr(20, 2), "\xFE\xFF") << "extensible";
    EXPECT_EQ(bytes.substr(40, 4), std::string("\x03\0\0\0", 4)) << "left and right";
    EXPECT_EQ(samplesOf(path("y.wav"), channels).size(), 24000U);
}

TEST_F(DxrCommand, recordsEveryFrameAndNoMore)
{
    const std::string name = path("ramp.wav");
    const ToolResult result = runTool({"record", name, "--in", "ramp", "--simulated", "--seconds", "0.5"});
    EXPECT_EQ(result.status, 0) << result.errors;
    int channels = 0;
    const std::vector<float> samples = samplesOf(name, channels);
    ASSERT_EQ(samples.size(), 48000U);
    if (result.output.find(" 0 gaps") == std::string::npos)
        GTEST_SKIP() << "the machine was too busy: " << result.output;
    for (size_t frame = 1; frame < samples.size() / 2; ++frame)
        ASSERT_EQ((samples[2 * frame] - samples[2 * frame - 2]) * 16777216.0F, 1.0F) << frame;
}

TEST_F(DxrCommand, leavesAValidRecordingWhateverEndsIt)
{
    int channels = 0;
    ToolProcess stopped({"record", path("stopped.wav"), "--in", "sim-loopback", "--simulated"});
    ASSERT_TRUE(stopped.waitFor("Loop-back"));
    usleep(600'000);
    stopped.signal(SIGINT);
    EXPECT_EQ(stopped.finish(), 0) << stopped.errors();
    EXPECT_GT(samplesOf(path("stopped.wav"), channels).size(), 10000U);

    constexpr size_t disk = 100'001;
    ToolProcess full({"record", path("full.wav"), "--in", "sim-loopback", "--simulated"}, false, disk);
    EXPECT_EQ(full.finish(), 1);
    EXPECT_EQ(linesOf(full.errors()).size(), 1U) << full.errors();
    const size_t samples = samplesOf(path("full.wav"), channels).size();
    EXPECT_GT(samples * sizeof(float), disk - 200);
    EXPECT_EQ(samples % 2, 0U);

    ToolProcess killed({"record", path("killed.wav"), "--in", "sim-loopback", "--simulated"});
    ASSERT_TRUE(killed.waitFor("Loop-back"));
    usleep(1'800'000);
    killed.signal(SIGKILL);
    killed.finish();
    EXPECT_GT(samplesOf(path("killed.wav"), channels).size(), 10000U);
}

/// Writes a second of a sine of its own frequency and loudness in each of three channels.
void writeTones(const std::string& path, int rate, const double (&hertz)[3])
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 3;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    std::vector<float> samples;
    for (int k = 0; k < rate; ++k)
        for (int c = 0; c < 3; ++c)
            samples.push_back(
                static_cast<float>(0.25 * (c + 1) * std::sin(2 * std::numbers::pi * hertz[c] * k / rate)));
    SNDFILE* const file = sf_open(path.c_str(), SFM_WRITE, &info);
    sf_writef_float(file, samples.data(), rate);
    sf_close(file);
}

// Frequency, loudness, place in time, length and channels: a file resampled is the file it was.
TEST_F(DxrCommand, resamplesAFileIntoTheSameSound)
{
    constexpr double hertz[3] = {100, 440, 1000};
    struct {
        int from, to;
    } const rows[] = {{44100, 48000}, {48000, 44100}, {8000, 96000}, {48000, 48000}};
    for (const auto& row : rows) {
        writeTones(path("tones.wav"), row.from, hertz);
        const ToolResult result =
            runTool({"resample", path("tones.wav"), path("out.wav"), "--rate", std::to_string(row.to)});
        ASSERT_EQ(result.status, 0) << result.errors;
        int channels = 0;
        const std::vector<float> samples = samplesOf(path("out.wav"), channels);
        ASSERT_EQ(channels, 3);
        ASSERT_EQ(samples.size(), 3 * static_cast<size_t>(row.to)) << row.from << " to " << row.to;
        for (size_t c = 0; c < 3; ++c) {
            double worst = 0; // where neither the start nor the end of the sound is heard
            for (size_t k = 200; k + 200 < static_cast<size_t>(row.to); ++k)
                worst = std::max(worst, std::abs(static_cast<double>(samples[3 * k + c]) -
                                                 0.25 * static_cast<double>(c + 1) *
                                                     std::sin(2 * std::numbers::pi * hertz[c] *
                                                              static_cast<double>(k) / row.to)));
            const double halfAFrame = std::numbers::pi * hertz[c] / row.to; // radians
            EXPECT_LT(worst, 0.25 * static_cast<double>(c + 1) * 1.01 * halfAFrame + 1e-4)
                << row.from << " to " << row.to << ", channel " << c;
        }
    }
}

TEST_F(DxrCommand, resamplesWithoutNoiseUnlessItIsToBeFast)
{
    writeTones(path("tones.wav"), 44100, {100, 1000, 10000});
    for (const bool isFast : {false, true}) {
        std::vector<std::string> arguments{"resample", path("tones.wav"), path("out.wav"), "--rate", "48000"};
        if (isFast)
            arguments.emplace_back("--fast");
        ASSERT_EQ(runTool(arguments).status, 0);
        int channels = 0;
        const std::vector<float> samples = samplesOf(path("out.wav"), channels);
        std::vector<float> high;
        for (size_t k = 1000; k < 40000; ++k)
            high.push_back(samples[3 * k + 2]);
        const double quality = SineFit::nearTo(high, 10000, 48000).signalToNoise;
        EXPECT_EQ(quality > 100.0, !isFast) << quality;
        EXPECT_GT(quality, 25.0);
    }
}

TEST_F(DxrCommand, playsAsMuchAsIsWanted)
{
    ASSERT_EQ(
        pipeline("d record x.wav --in sim-ramp --seconds 0.25 --rate 48000 --quiet;"
                 "d record five.wav --in sim-ramp --in sim-loopback --in sim-usb-mic --seconds 0.1 --quiet")
            .status,
        0);
    struct {
        const char* why;
        std::string command;
        int status;
        const char* says;
    } const rows[] = {
        {"a part", "d play x.wav --seconds 0.1", 0, "4,800 frames of 4,800 played"},
        {"of a pipe", "d record - --in sim-ramp --rate 48000 --quiet | d play - --seconds 0.1", 1,
         "4,800 frames"},
        {"more than there is", "d play x.wav --seconds 10", 0, "12,000 frames of 12,000 played"},
        {"again and again", "d play x.wav --loop --seconds 0.6", 0, "28,800 frames of 28,800 played"},
        {"a pipe again", "cat x.wav | d play - --loop", 1, ""},
        {"channels that are not there", "d play five.wav", 0,
         "3 of 5 channels are not played; --downmix mixes them"},
        {"mixed", "d play five.wav --downmix | grep -c 'not played'", 1, "0"},
        {"mixed and chosen", "d play five.wav --downmix --channels 1,2", 2, ""},
        {"a device that comes later", "d play x.wav --out sim-headphones --wait", 0,
         "Waiting: no output device 'sim-headphones'"},
    };
    for (const auto& row : rows) {
        const ToolResult result = pipeline(row.command);
        EXPECT_EQ(result.status, row.status) << row.why << "\n" << result.output << result.errors;
        EXPECT_NE(result.output.find(row.says), std::string::npos) << row.why << "\n"
                                                                   << result.output << result.errors;
    }
}

} // namespace
