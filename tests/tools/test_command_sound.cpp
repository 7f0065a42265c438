#include "DxrCommand.h"

#include "Eventually.h"
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
    ASSERT_EQ(run("d record x.wav --in sim-ramp --seconds 0.1").status, 0);
    const std::pair<const char*, const char*> rows[] = {
        {"missing, with a name that controls the terminal", "bad=$'\\e]0;owned\\a.wav'"},
        {"a folder", "bad=."},
        {"no sound", "echo Dear diary, today I recorded nothing at all. > bad.wav"},
        {"half a header", "head -c 9 x.wav > bad.wav"},
        {"cut short by a byte", "head -c -1 x.wav > bad.wav"},
        {"no rate",
         "cp x.wav bad.wav; dd if=/dev/zero of=bad.wav bs=4 seek=6 count=1 conv=notrunc 2> /dev/null"},
        {"an endless chunk", "printf 'RIFF\\xFF\\xFF\\xFF\\x7FWAVELIST\\xFF\\xFF\\xFF\\x7F' > bad.wav"},
        {"RF64 that is cut short",
         "d record r.rf64 --in sim-ramp --seconds 0.1 --quiet; head -c 9000 r.rf64 > bad.wav"},
    };
    for (const auto& [why, made] : rows) {
        SCOPED_TRACE(why);
        const ToolResult result =
            run(std::string("bad=bad.wav; ") + made + "; dxr resample \"$bad\" out.wav --rate 44100");
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
        EXPECT_EQ(result.errors.find_first_of(controls), std::string::npos);
    }
}

TEST_F(DxrCommand, playsAndRecordsInPipelines)
{
    const std::string record = "d record - --in sim-ramp --rate 48000 --seconds 0.25 ";
    ASSERT_EQ(run("d record x.wav --in sim-ramp --seconds 0.25 --rate 48000 --quiet;"
                  "d record five.wav --in sim-ramp --in sim-loopback --in sim-usb-mic --seconds 0.1")
                  .status,
              0);
    expectRows({
        {"WAV", record + "| d play -", 0, "12,000 frames played"},
        {"FLAC", record + "--format flac | d play -", 0, "12,000 frames played"},
        {"Ogg, whose end is read first", record + "--format ogg | d play -", 0, "12,000 frames played"},
        {"Opus", record + "--format opus | d play -", 0, "12,000 frames played"},
        {"RF64", "d record r.rf64 --in sim-ramp --seconds 0.1; d play r.rf64", 0, "4,800 frames of 4,800"},
        {"raw of another rate", record + "--format f32 | d play - --format f32:96000:1", 0,
         "24,000 frames played"},
        {"more than the header declares", "(cat x.wav; echo tail) | d play -", 0, "12,000 frames played"},
        {"FLAC from a pipe in a file", record + "--format flac > x.flac; d play x.flac", 0, "12,000 frames"},
        {"a FIFO", "mkfifo f; " + record + "> f & d play f", 0, "12,000 frames played"},
        {"only sound on standard output, whose end is an error", record + "| head -c 4", 1, "RIFF"},
        {"a full disk", "d record - --in sim-ramp > /dev/full", 1, ""},
        {"default devices, quietly", "(d play - --quiet < x.wav; d loop --seconds 0.1 --quiet) | wc -c", 0,
         "0\n"},
        {"a part", "d play x.wav --seconds 0.1", 0, "4,800 frames of 4,800 played"},
        {"repeated", "d play x.wav --loop --seconds 0.6", 0, "28,800 frames of 28,800 played"},
        {"a pipe repeated", "cat x.wav | d play - --loop", 1, ""},
        {"a pipe resampled", "cat x.wav | dxr resample - z.wav --rate 44100", 1, ""},
        {"missing channels", "d play five.wav", 0, "3 of 5 channels are not played; --downmix mixes them"},
        {"mixed", "d play five.wav --downmix | grep -c 'not played'", 1, "0"},
        {"mixed and chosen", "d play five.wav --downmix --channels 1,2", 2, ""},
        {"a loop",
         "d loop --in sim-ramp:1 --in sim-usb-mic --out sim-speakers --out sim-surround:3-6 --frames 480 "
         "--rate 22050 --seconds 0.3 | tr '\\n' '|' | grep -o 'Ramp.*-> Built.*Receiver.*480 frames; round "
         "trip.*frames moved' | wc -l",
         0, "1"},
        {"a device that connects later", "d play x.wav --out sim-headphones --wait", 0,
         "Waiting: no output device 'sim-headphones'"},
    });
    run(record + "> y.wav");
    const std::string bytes = contentOf(path("y.wav"));
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
        std::filesystem::remove(path("x.wav"));
        ToolProcess record({"record", path("x.wav"), "--in", "sim-loopback", "--simulated"}, false,
                           row.maxBytes);
        ASSERT_TRUE(record.waitFor("Loop-back"));
        if (row.signal != 0) {
            EXPECT_TRUE(eventually([&] { return samplesOf(path("x.wav"), 2).size() > 10000; }));
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
    constexpr double hertz[] = {100, 1000, 10000}, loudness[] = {0.25, 0.5, 0.75};
    const struct {
        int from, to;
        size_t channels;
        const char* option;
    } rows[] = {{44100, 48000, 3, ""},
                {48000, 44100, 2, ""},
                {8000, 96000, 2, ""},
                {48000, 48000, 3, ""},
                {44100, 48000, 3, " --fast"}};
    for (const auto& row : rows) {
        const std::string command =
            formatText("dxr resample tones.wav out.wav --rate %d%s", row.to, row.option);
        SCOPED_TRACE(std::to_string(row.from) + ": " + command);
        writeWave(path("tones.wav"), row.from, static_cast<int>(row.channels), row.from,
                  [&](int frame, int channel) {
                      return loudness[channel] *
                             std::sin(2 * std::numbers::pi * hertz[channel] * frame / row.from);
                  });
        ASSERT_EQ(run(command).status, 0);
        const std::vector<float> samples = samplesOf(path("out.wav"), static_cast<uint32_t>(row.channels));
        ASSERT_EQ(samples.size(), row.channels * static_cast<size_t>(row.to));
        for (size_t c = 0; c < row.channels; ++c) {
            const double step = 2 * std::numbers::pi * hertz[c] / row.to;
            double worst = 0; // except near the start and the end
            std::vector<float> middle;
            for (size_t k = 200; k + 200 < static_cast<size_t>(row.to); ++k) {
                middle.push_back(samples[row.channels * k + c]);
                worst = std::max(worst, std::abs(static_cast<double>(middle.back()) -
                                                 loudness[c] * std::sin(step * static_cast<double>(k))));
            }
            EXPECT_LT(worst, loudness[c] * 1.01 * step / 2 + 1e-4) << "half a frame, channel " << c;
            if (c < 2)
                continue;
            const double quality = SineFit::nearTo(middle, hertz[c], row.to).signalToNoise;
            EXPECT_EQ(quality > 100.0, row.option[0] == '\0') << quality;
            EXPECT_GT(quality, 25.0);
        }
    }
}

} // namespace
