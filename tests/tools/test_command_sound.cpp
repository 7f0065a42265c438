#include "DxrCommand.h"

#include "SineFit.h"
#include "Text.h"
#include "WaveFile.h"

#include <cmath>
#include <csignal>
#include <numbers>
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
    const std::string bytes = contentOf(path("y.wav"));
    EXPECT_EQ(bytes.substr(20, 2), "\xFE\xFF") << "extensible";
    EXPECT_EQ(bytes.substr(40, 4), std::string("\x03\0\0\0", 4)) << "left and right";
    EXPECT_EQ(samplesOf(path("y.wav"), 2).size(), 24000U);
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
        const size_t samples = samplesOf(path("x.wav"), 2).size();
        EXPECT_GT(samples, row.maxBytes > 0 ? (disk - 200) / sizeof(float) : 10000);
    }
}

// Frequency, loudness, position in time, length and channels are kept; only --fast adds noise.
TEST_F(DxrCommand, resamplesAFileIntoTheSameSound)
{
    constexpr double hertz[3] = {100, 440, 1000}, high[3] = {100, 1000, 10000},
                     loudness[3] = {0.25, 0.5, 0.75};
    const struct {
        int from, to;
        const double (&tones)[3];
        const char* option;
    } rows[] = {{44100, 48000, hertz, ""}, {48000, 44100, hertz, ""}, {8000, 96000, hertz, ""},
                {48000, 48000, hertz, ""}, {44100, 48000, high, ""},  {44100, 48000, high, " --fast"}};
    for (const auto& row : rows) {
        const std::string command = formatText("resample tones.wav out.wav --rate %d%s", row.to, row.option);
        SCOPED_TRACE(std::to_string(row.from) + ": " + command);
        writeWave(path("tones.wav"), row.from, 3, row.from, [&](int frame, int channel) {
            return loudness[channel] * std::sin(2 * std::numbers::pi * row.tones[channel] * frame / row.from);
        });
        const ToolResult result = pipeline(DXR_TOOL " " + command);
        ASSERT_EQ(result.status, 0) << result.errors;
        const std::vector<float> samples = samplesOf(path("out.wav"), 3);
        ASSERT_EQ(samples.size(), 3 * static_cast<size_t>(row.to));
        for (size_t c = 0; c < 3; ++c) {
            const double step = 2 * std::numbers::pi * row.tones[c] / row.to;
            double worst = 0; // except near the start and the end
            std::vector<float> middle;
            for (size_t k = 200; k + 200 < static_cast<size_t>(row.to); ++k) {
                middle.push_back(samples[3 * k + c]);
                worst = std::max(worst, std::abs(static_cast<double>(middle.back()) -
                                                 loudness[c] * std::sin(step * static_cast<double>(k))));
            }
            EXPECT_LT(worst, loudness[c] * 1.01 * step / 2 + 1e-4) << "half a frame, channel " << c;
            if (row.tones[c] < 10000)
                continue;
            const double quality = SineFit::nearTo(middle, row.tones[c], row.to).signalToNoise;
            EXPECT_EQ(quality > 100.0, row.option[0] == '\0') << quality;
            EXPECT_GT(quality, 25.0);
        }
    }
}

} // namespace
