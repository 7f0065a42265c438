#include "DxrCommand.h"

#include "Eventually.h"
#include "SineFit.h"
#include "Text.h"
#include "WaveFile.h"

#include <cmath>
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
        {"a rate of 99 Hz",
         "cp x.wav bad.wav; printf 'c\\0\\0' | dd of=bad.wav bs=1 seek=24 conv=notrunc status=none"},
        {"an endless chunk", "printf 'RIFF\\xFF\\xFF\\xFF\\x7FWAVELIST\\xFF\\xFF\\xFF\\x7F' > bad.wav"},
        {"doubles, of which half are missing",
         "printf 'RIFF\\x44\\0\\0\\0WAVEfmt "
         "\\x10\\0\\0\\0\\3\\0\\1\\0\\x80\\xBB\\0\\0\\0\\xDC\\5\\0\\x08\\0\\x40\\0data\\x20"
         "\\0\\0\\0' > bad.wav; head -c 16 /dev/zero >> bad.wav"},
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
        {"files of all kinds, whole and, where their headers show it, cut short",
         "for f in w64 caf aiff au wav rf64; do d record c.$f --in sim-usb-mic --seconds 0.05 --quiet && "
         "d play c.$f || exit; head -c 9000 c.$f > cut; [ $f = w64 ] || ! d play cut || exit; done",
         0, "2,400 frames of 2,400"},
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
        {"a pipe without an end that is no sound", "ulimit -v 4000000; d play - < /dev/zero 2>&1", 1,
         "not sound"},
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
        {"a file that its format refuses, some with the first frame, keeps its content",
         "echo kept > k.opus; cp k.opus k.ogg; for f in k.opus k.ogg new.ogg; do dxr resample x.wav $f "
         "--rate 300000 && exit; done; cat k.ogg k.opus new.ogg",
         1, "kept\nkept\n"},
        {"raw samples of another name",
         "for f in s16:24 f32:16; do d record x.${f%:*} --bits ${f#*:} --seconds 0.1 && exit; done 2>&1; "
         "false",
         1, "f32 does not support"},
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
    const auto recorded = [&] { return samplesOf(path("x.wav"), 2).size(); };
    for (const int signal : {SIGINT, SIGKILL}) {
        std::filesystem::remove(path("x.wav"));
        ToolProcess record({"record", path("x.wav"), "--in", "sim-loopback", "--simulated"});
        EXPECT_TRUE(eventually([&] { return recorded() > 10000; })) << signal;
        record.signal(signal);
        EXPECT_EQ(record.finish(), signal == SIGKILL ? 128 + SIGKILL : 0);
        EXPECT_EQ(record.errors(), "");
        EXPECT_GT(recorded(), 10000U);
    }
    const ToolResult full = runOnDisk(100'001, "d record x.wav --in sim-loopback"); // it ends within a frame
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(linesOf(full.errors).size(), 1U) << full.errors;
    EXPECT_GT(recorded(), (100'001 - 200) / sizeof(float));
}

TEST_F(DxrCommand, endsWhileNobodyReadsItsFIFO)
{
    // Signals before the handler is set would prove nothing.
    const std::string record = DXR_TOOL
        " record f --simulated & until grep -q 'SigCgt.*[4-7c-f]...$' /proc/$!/status; do sleep 0.1; "
        "done; sleep 1; ";
    const std::string once = "kill $!; timeout 20 tail --pid=$! -f /dev/null; kill -9 $!; wait $!";
    const std::string twice = "kill -STOP $!; kill $!; kill -INT $!; kill -CONT $!; wait $!";
    for (const char* opened : {"", "exec 3<>f; "})
        EXPECT_LE(run(std::string("mkfifo f; ") + opened + record + once).status, 1) << opened;
    EXPECT_GT(run("mkfifo f; exec 3<>f; " + record + twice).status, 128) << "at once";
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
        const bool isFast = row.option[0] != '\0';
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
            std::vector<float> middle; // without the start and the end
            for (size_t k = 200; k + 200 < static_cast<size_t>(row.to); ++k)
                middle.push_back(samples[row.channels * k + c]);
            const SineFit fit = SineFit::nearTo(middle, hertz[c], row.to);
            EXPECT_NEAR(fit.amplitude, loudness[c], loudness[c] * (isFast ? 0.06 : 0.01));
            EXPECT_LT(std::abs(std::remainder(fit.phase - 200 * step, 2 * std::numbers::pi)), step / 2)
                << "half a frame, channel " << c;
            EXPECT_EQ(fit.signalToNoise > (row.from == 8000 ? 90.0 : 100.0), !isFast) << fit.signalToNoise;
            EXPECT_GT(fit.signalToNoise, 25.0);
        }
    }
    EXPECT_EQ(run("dxr resample tones.wav x.wav --rate 1378").status, 1) << "only --fast does not filter";
    writeWave(path("slow.wav"), 100, 64, 2, [](int, int) { return 0.5; });
    EXPECT_EQ(run("ulimit -v 1000000; dxr resample slow.wav out.wav --rate 1536000 --fast").status, 0);
    EXPECT_EQ(samplesOf(path("out.wav"), 64).size(), 64U * 2 * 15360);
}

} // namespace
