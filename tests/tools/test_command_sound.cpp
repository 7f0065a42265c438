#include "DxrCommand.h"

#include "SineFit.h"

#include <cmath>
#include <csignal>
#include <numbers>
#include <sndfile.h>
#include <unistd.h>

namespace {

TEST_F(DxrCommand, refusesBadSoundFilesWithOneLine)
{
    const struct {
        const char* why;
        std::string path;
    } rows[] = {
        {"missing", path("none.wav")},
        {"a folder", folder},
        {"empty", file("empty.wav", "")},
        {"no sound file", file("text.wav", "Dear diary, today I recorded nothing at all.\n")},
        {"half a header", file("header.wav", wave(800, 0).substr(0, 9))},
        {"header only", file("headeronly.wav", wave(800, 0))},
        {"cut short by a byte", file("short.wav", wave(800, 799))},
        {"no frames", file("noframes.wav", wave(0, 0))},
        {"no channels", file("nochannels.wav", wave(800, 800).replace(22, 2, 2, '\0'))},
        {"no rate", file("norate.wav", wave(800, 800).replace(24, 4, 4, '\0'))},
        {"an endless chunk", file("endless.wav", "RIFF\xFF\xFF\xFF\x7FWAVELIST\xFF\xFF\xFF\x7F")},
        {"a name that controls the terminal", path("\x1B]0;owned\x07.wav")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        const ToolResult result = runTool({"resample", row.path, path("out.wav"), "--rate", "44100"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
        EXPECT_FALSE(hasControls(result.errors));
    }
    file("good.wav", wave(800, 800));
    expectRows({{"odd", "d play good.wav", 0, "200 frames"},
                {"RF64",
                 "d record r.rf64 --in sim-ramp --seconds 0.1; head -c 9000 r.rf64 > s.wav; d play r.rf64;"
                 "d play s.wav",
                 1, "4,800 frames of 4,800 played"}});
}

TEST_F(DxrCommand, playsAndRecordsInPipelines)
{
    const std::string record = "d record - --in sim-ramp --rate 48000 --seconds 0.25 ";
    ASSERT_EQ(pipeline("d record x.wav --in sim-ramp --seconds 0.25 --rate 48000 --quiet;"
                       "d record five.wav --in sim-ramp --in sim-loopback --in sim-usb-mic --seconds 0.1")
                  .status,
              0);
    expectRows({
        {"WAV", record + "| d play -", 0, "12,000 frames played"},
        {"FLAC", record + "--format flac | d play -", 0, "12,000 frames played"},
        {"Ogg, whose end is read first", record + "--format ogg | d play -", 0, "12,000 frames played"},
        {"Opus", record + "--format opus | d play -", 0, "12,000 frames played"},
        {"raw", record + "--format s16 | d play - --format s16:48000:2", 0, "12,000 frames played"},
        {"raw of another rate", record + "--format f32 | d play - --format f32:96000:1", 0,
         "24,000 frames played"},
        {"more than the header declares", "(cat x.wav; echo tail) | d play -", 0, "12,000 frames played"},
        {"FLAC from a pipe in a file", record + "--format flac > x.flac; d play x.flac", 0, "12,000 frames"},
        {"by its name", "d record y.flac --in sim-ramp --seconds 0.25 --quiet; head -c 4 y.flac", 0, "fLaC"},
        {"a FIFO", "mkfifo f; " + record + "> f & d play f", 0, "12,000 frames played"},
        {"only sound on standard output, whose end is an error", record + "| head -c 4", 1, "RIFF"},
        {"a reader that ends", "d record - --in sim-ramp | head -c 4", 1, "RIFF"},
        {"a full disk", "d record - --in sim-ramp > /dev/full", 1, ""},
        {"nothing", "d play - < /dev/null", 1, ""},
        {"no sound", "echo Dear diary, nothing today. | d play -", 1, ""},
        {"half a header", record + "| head -c 30 | d play -", 1, ""},
        {"default devices", "d play - --quiet < x.wav; d loop --seconds 0.1 --quiet", 0, ""},
        {"a part", "d play x.wav --seconds 0.1", 0, "4,800 frames of 4,800 played"},
        {"a part of a pipe", "d record - --in sim-ramp --rate 48000 | d play - --seconds 0.1", 1,
         "4,800 frames"},
        {"more than there is", "d play x.wav --seconds 10", 0, "12,000 frames of 12,000 played"},
        {"repeated", "d play x.wav --loop --seconds 0.6", 0, "28,800 frames of 28,800 played"},
        {"a pipe repeated", "cat x.wav | d play - --loop", 1, ""},
        {"a pipe resampled", "cat x.wav | " DXR_TOOL " resample - z.wav --rate 44100", 1, ""},
        {"missing channels", "d play five.wav", 0, "3 of 5 channels are not played; --downmix mixes them"},
        {"mixed", "d play five.wav --downmix | grep -c 'not played'", 1, "0"},
        {"mixed and chosen", "d play five.wav --downmix --channels 1,2", 2, ""},
        {"a device that connects later", "d play x.wav --out sim-headphones --wait", 0,
         "Waiting: no output device 'sim-headphones'"},
    });
    pipeline(record + "> y.wav");
    int channels = 0;
    const std::string bytes = contentOf(path("y.wav"));
    EXPECT_EQ(bytes.substr(20, 2), "\xFE\xFF") << "extensible";
    EXPECT_EQ(bytes.substr(40, 4), std::string("\x03\0\0\0", 4)) << "left and right";
    EXPECT_EQ(samplesOf(path("y.wav"), channels).size(), 24000U);
}

TEST_F(DxrCommand, leavesAValidRecordingHoweverItEnds)
{
    constexpr size_t disk = 100'001;
    const struct {
        const char* why;
        int signal;
        size_t maxBytes;
        int status;
    } rows[] = {{"stopped", SIGINT, 0, 0}, {"killed", SIGKILL, 0, 128 + SIGKILL}, {"disk full", 0, disk, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        ToolProcess record({"record", path("x.wav"), "--in", "sim-loopback", "--simulated"}, false,
                           row.maxBytes);
        ASSERT_TRUE(record.waitFor("Loop-back"));
        if (row.signal != 0) {
            usleep(1'800'000);
            record.signal(row.signal);
        }
        EXPECT_EQ(record.finish(), row.status);
        EXPECT_EQ(linesOf(record.errors()).size(), row.status == 1 ? 1U : 0U) << record.errors();
        int channels = 0;
        const size_t samples = samplesOf(path("x.wav"), channels).size();
        EXPECT_GT(samples, row.maxBytes > 0 ? (disk - 200) / sizeof(float) : 10000);
        EXPECT_EQ(samples % 2, 0U);
    }
}

/// Writes a second of a sine of another frequency and loudness in each of three channels.
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

// Frequency, loudness, place in time, length and channels stay.
TEST_F(DxrCommand, resamplesAFileIntoTheSameSound)
{
    constexpr double hertz[3] = {100, 440, 1000};
    const std::pair<int, int> rows[] = {{44100, 48000}, {48000, 44100}, {8000, 96000}, {48000, 48000}};
    for (const auto& [from, to] : rows) {
        SCOPED_TRACE(std::to_string(from) + " to " + std::to_string(to));
        writeTones(path("tones.wav"), from, hertz);
        const ToolResult result =
            runTool({"resample", path("tones.wav"), path("out.wav"), "--rate", std::to_string(to)});
        ASSERT_EQ(result.status, 0) << result.errors;
        int channels = 0;
        const std::vector<float> samples = samplesOf(path("out.wav"), channels);
        ASSERT_EQ(channels, 3);
        ASSERT_EQ(samples.size(), 3 * static_cast<size_t>(to));
        for (size_t c = 0; c < 3; ++c) {
            const double loudness = 0.25 * static_cast<double>(c + 1),
                         step = 2 * std::numbers::pi * hertz[c] / to;
            double worst = 0; // away from the start and the end
            for (size_t k = 200; k + 200 < static_cast<size_t>(to); ++k)
                worst = std::max(worst, std::abs(static_cast<double>(samples[3 * k + c]) -
                                                 loudness * std::sin(step * static_cast<double>(k))));
            EXPECT_LT(worst, loudness * 1.01 * step / 2 + 1e-4) << "half a frame, channel " << c;
        }
    }
}

TEST_F(DxrCommand, resamplesWithoutNoiseUnlessFast)
{
    writeTones(path("tones.wav"), 44100, {100, 1000, 10000});
    for (const bool isFast : {false, true}) {
        pipeline(std::string(DXR_TOOL " resample tones.wav out.wav --rate 48000") +
                 (isFast ? " --fast" : ""));
        int channels = 0;
        const std::vector<float> samples = samplesOf(path("out.wav"), channels);
        ASSERT_EQ(samples.size(), 3U * 48000);
        std::vector<float> high;
        for (size_t k = 1000; k < 40000; ++k)
            high.push_back(samples[3 * k + 2]);
        const double quality = SineFit::nearTo(high, 10000, 48000).signalToNoise;
        EXPECT_EQ(quality > 100.0, !isFast) << quality;
        EXPECT_GT(quality, 25.0);
    }
}

} // namespace
