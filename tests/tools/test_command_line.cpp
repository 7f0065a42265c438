#include "ToolProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sndfile.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numbers>
#include <numeric>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using nlohmann::json;

class DxrCommand : public testing::Test {
protected:
    DxrCommand()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "dxr-tool-XXXXXX";
        folder = mkdtemp(pattern.data());
        setenv("PIPEWIRE_REMOTE", "/nowhere", 1);
    }
    ~DxrCommand() override { std::filesystem::remove_all(folder); }

    std::string file(const std::string& name, const std::string& content = {}) const
    {
        std::ofstream(folder / name, std::ios::binary) << content;
        return folder / name;
    }
    std::string path(const std::string& name) const { return folder / name; }

    std::filesystem::path folder;
};

std::vector<std::string> linesOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

bool hasControls(const std::string& text)
{
    return std::ranges::any_of(
        text, [](char c) { return (static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7F; });
}

/// The samples of a 32-bit float WAV file, and its channels; nothing when it is none.
std::vector<float> samplesOf(const std::string& path, int& channels)
{
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file || info.format != (SF_FORMAT_WAVEX | SF_FORMAT_FLOAT)) {
        sf_close(file);
        return {};
    }
    channels = info.channels;
    std::vector<float> samples(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(file, samples.data(), info.frames);
    sf_close(file);
    return samples;
}

std::string wave(uint32_t declaredBytes, size_t heldBytes)
{
    const auto word = [](uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); };
    return "RIFF" + word(36 + declaredBytes) + "WAVEfmt " + word(16) + word(0x00010003) + word(48000) +
           word(192000) + word(0x00200004) + "data" + word(declaredBytes) + std::string(heldBytes, '\0');
}

/// Runs a shell's command in `folder`, where `d` is dxr on the simulated computer.
ToolResult pipeline(const std::filesystem::path& folder, const std::string& command)
{
    std::ofstream(folder / "script") << "cd " << folder << "; d() { " DXR_TOOL " \"$@\" --simulated; }; { "
                                     << command << "; } 2> errors";
    FILE* const pipe = popen(("bash -o pipefail " + (folder / "script").string()).c_str(), "r");
    std::array<char, 4096> block{};
    ToolResult result{};
    while (const size_t count = std::fread(block.data(), 1, block.size(), pipe))
        result.output.append(block.data(), count);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::stringstream errors;
    errors << std::ifstream(folder / "errors").rdbuf();
    result.errors = errors.str();
    return result;
}

TEST_F(DxrCommand, tellsWrongUsageFromFailure)
{
    const std::string good = file("good.wav", wave(8000, 8000));
    struct {
        std::vector<std::string> arguments;
        int status;
    } const rows[] = {
        {{}, 2},
        {{"nonsense"}, 2},
        {{"list", "--nonsense"}, 2},
        {{"info", "--simulated"}, 2},
        {{"play"}, 2},
        {{"set", "zoo-speakers", "--simulated", "--volume", "+101%"}, 2},
        {{"set", "zoo-speakers", "--simulated", "--volume", "+5%", "--mute", "toggle"}, 0},
        {{"-V"}, 0},
        {{"help"}, 0},
        {{"list"}, 1}, // no server
        {{"info", "1", "--simulated"}, 1},
        {{"record", path("x.mp4"), "--simulated"}, 1},
        {{"record", path("x.flac"), "--simulated", "--bits", "32"}, 1},
        {{"record", "-", "--simulated", "--format", "aiff"}, 1},
        {{"play", "-", "--simulated", "--format", "s16:0:2"}, 1},
        {{"set", "zoo-speakers", "--simulated"}, 2},
        {{"set", "zoo-speakers", "--simulated", "--volume", "1.01"}, 2},
        {{"set", "zoo-speakers", "--simulated", "--volume", "50"}, 2},
        {{"set", "zoo-speakers", "--simulated", "--volume", "nan"}, 2},
        {{"set", "zoo-speakers", "--simulated", "--mute", "maybe"}, 2},
        {{"record", "x.wav", "--in", "zoo-ramp", "--seconds", "-1"}, 2},
        {{"trace"}, 2},
        {{"--help"}, 0},
        {{"--version"}, 0},
        {{"info", "nobody", "--simulated"}, 1},
        {{"info", "", "--simulated"}, 1},
        {{"info", "Built-in", "--simulated"}, 0},
        {{"set", "zoo-usb-mic", "--simulated", "--output", "--mute", "on"}, 1},
        {{"set", "zoo-speakers", "--simulated", "--rate", "12345"}, 1},
        {{"set", "zoo-speakers", "--simulated", "--source", "Nowhere"}, 1},
        {{"set", "speakers", "--simulated", "--volume", "25%", "--source", "line out"}, 0},
        {{"record", "/nowhere/x.wav", "--in", "zoo-ramp", "--simulated", "--seconds", "0.1"}, 1},
        {{"record", "/dev/full", "--in", "zoo-ramp", "--simulated", "--seconds", "0.1"}, 1},
        {{"loop", "--in", "zoo-ramp", "--in", "zoo-ramp:1", "--out", "zoo-speakers", "--simulated"}, 1},
        {{"loop", "--in", "zoo-ramp:3", "--out", "zoo-speakers", "--simulated"}, 1},
        {{"loop", "--in", "zoo-ramp", "--out", "zoo-speakers", "--simulated", "--rate", "5"}, 1},
        {{"loop", "--in", "zoo-ramp", "--out", "zoo-speakers", "--simulated", "--frames", "4294967295"}, 1},
        {{"play", good, "--out", "zoo-speakers:1", "--channels", "1,1", "--simulated"}, 1},
        {{"play", good, "--out", "zoo-speakers", "--channels", "2", "--simulated"}, 1},
        {{"trace", "/nowhere/x.json", "--simulated"}, 1},
        {{"trace", "/dev/full", "--simulated"}, 1},
        {{"resample", good, path("out.wav")}, 2},
        {{"resample", good, path("out.wav"), "--rate", "0"}, 2},
        {{"resample", good, path("out.wav"), "--rate", "44100.5x"}, 2},
        {{"resample", good, good, "--rate", "44100"}, 1},
        {{"resample", good, "/nowhere/out.wav", "--rate", "44100"}, 1},
        {{"resample", good, folder, "--rate", "44100"}, 1},
        {{"resample", good, "/dev/full", "--rate", "44100"}, 1},
        {{"plot", "response", path("x.svg"), "--from", "44100"}, 2},
        {{"plot", "response", path("x.svg"), "--from", "44100", "--to", "-1"}, 2},
        {{"plot", "response", "/dev/full", "--from", "44100", "--to", "48000"}, 1},
        {{"plot", "response", "/nowhere/x.svg", "--from", "44100", "--to", "48000"}, 1},
    };
    for (const auto& row : rows) {
        const ToolResult result = runTool(row.arguments);
        const std::string shown =
            std::accumulate(row.arguments.begin(), row.arguments.end(), std::string("dxr"),
                            [](const std::string& a, const std::string& b) { return a + " " + b; });
        EXPECT_EQ(result.status, row.status) << shown << "\n" << result.errors;
        EXPECT_EQ(result.errors.empty(), row.status == 0) << shown;
        if (row.status == 1) {
            EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
        }
    }
}

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
             {runTool({"play", row.path, "--out", "zoo-speakers", "--simulated"}),
              runTool({"resample", row.path, path("out.wav"), "--rate", "44100"})}) {
            EXPECT_EQ(result.status, 1) << row.why;
            EXPECT_EQ(linesOf(result.errors).size(), 1U) << row.why << ": " << result.errors;
            EXPECT_FALSE(hasControls(result.errors)) << row.why;
        }
    }
    EXPECT_EQ(runTool({"play", file("good.wav", wave(800, 800)), "--out", "speakers", "--simulated"}).status,
              0);
}

TEST_F(DxrCommand, listsTheSameDevicesAsTableAndAsJSON)
{
    const json devices = json::parse(runTool({"list", "--simulated", "--all", "--json"}).output);
    EXPECT_EQ(devices.size(), 6U);
    const auto receiver =
        std::ranges::find(devices, "zoo-surround", [](const json& each) { return each["uid"]; });
    ASSERT_NE(receiver, devices.end());
    EXPECT_EQ((*receiver)["outputs"]["channels"], 6);
    EXPECT_EQ((*receiver)["outputs"]["channel_volumes"][5], 0.6);
    EXPECT_EQ((*receiver)["outputs"]["volume"], nullptr);
    EXPECT_EQ((*receiver)["sample_rates"][2]["maximum"], 192000.0);
    EXPECT_EQ(json::parse(runTool({"info", "zoo-surround", "--simulated", "--json"}).output), *receiver);

    const ToolResult table = runTool({"list", "--simulated"});
    for (const json& device : devices)
        EXPECT_EQ(table.output.find(device["uid"].get<std::string>()) == std::string::npos,
                  device["hidden"].get<bool>());
    const ToolResult narrow = pipeline(folder, "COLUMNS=20 d list");
    for (const std::string& line : linesOf(narrow.output))
        EXPECT_LE(std::ranges::count_if(line, [](char c) { return (c & 0xC0) != 0x80; }), 20) << line;

    // Every key is in the document, which names the version.
    std::stringstream document;
    document << std::ifstream(DXR_JSON_DOCUMENT).rdbuf();
    EXPECT_NE(document.str().find("`schema` | " + std::to_string((*receiver)["schema"].get<int>())),
              std::string::npos);
    const std::function<void(const json&)> expectKeys = [&](const json& value) {
        if (!value.is_structured())
            return;
        for (const auto& [key, inner] : value.items()) {
            const bool isKnown =
                !value.is_object() || document.str().find("| `" + key + "` |") != std::string::npos;
            EXPECT_TRUE(isKnown) << key;
            expectKeys(inner);
        }
    };
    expectKeys(devices);
}

TEST_F(DxrCommand, namesTheCommandThatWasProbablyMeant)
{
    EXPECT_EQ(runTool({"lst"}).errors,
              "no command 'lst'; did you mean 'list'?\nRun with --help for more information.\n");
    EXPECT_EQ(linesOf(runTool({"x\x1B[2J"}).errors).at(0), "no command 'x\\x1B[2J'");
    EXPECT_EQ(linesOf(runTool({"record", "x.wav", "--seconds", "-1"}).errors).at(0),
              "--seconds: must be above 0");
}

TEST_F(DxrCommand, standsInAPipeline)
{
    const std::string record = "d record - --in zoo-ramp --rate 48000 --seconds 0.25 ";
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
         "d record x.wav --in zoo-ramp --seconds 0.25 --rate 48000 --quiet; "
         "(cat x.wav; echo tail) | d play -",
         0, "12,000 frames played"},
        {"FLAC that came through a pipe into a file", record + "--format flac > x.flac; d play x.flac", 0,
         "12,000 frames"},
        {"by its name", "d record x.flac --in zoo-ramp --seconds 0.25 --quiet; head -c 4 x.flac", 0, "fLaC"},
        {"a FIFO", "mkfifo f; " + record + "> f & d play f", 0, "12,000 frames played"},
        {"only sound on standard output", record + "| head -c 4", 1,
         "RIFF"}, // and the end of the pipe is an error
        {"a reader that goes", "d record - --in zoo-ramp | head -c 4", 1, "RIFF"},
        {"a full disk", "d record - --in zoo-ramp > /dev/full", 1, ""},
        {"nothing comes", "d play - < /dev/null", 1, ""},
        {"no sound comes", "echo Dear diary, nothing today. | d play -", 1, ""},
        {"half a header", record + "| head -c 30 | d play -", 1, ""},
        {"no default", "d play - --quiet < x.wav; d loop --seconds 0.1 --quiet", 0, ""},
    };
    for (const auto& row : rows) {
        const ToolResult result = pipeline(folder, row.command);
        EXPECT_EQ(result.status, row.status) << row.why << "\n" << result.output << result.errors;
        EXPECT_NE(result.output.find(row.says), std::string::npos) << row.why << "\n"
                                                                   << result.output << result.errors;
    }
    pipeline(folder, record + "> y.wav");
    int channels = 0;
    std::ifstream wave(path("y.wav"), std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(wave), {});
    EXPECT_EQ(bytes.substr(20, 2), "\xFE\xFF") << "extensible";
    EXPECT_EQ(bytes.substr(40, 4), std::string("\x03\0\0\0", 4)) << "left and right";
    EXPECT_EQ(samplesOf(path("y.wav"), channels).size(), 24000U);
}

TEST_F(DxrCommand, remembersAndRefersToDevices)
{
    const auto onZoo = [](std::vector<std::string> arguments) {
        arguments.emplace_back("--simulated");
        return runTool(arguments);
    };
    const std::string reference = linesOf(onZoo({"ref", "zoo-loopback", "--input"}).output).at(0);
    EXPECT_EQ(json::parse(reference), (json{{"uid", "zoo-loopback"}, {"i", true}}));
    EXPECT_EQ(json::parse(onZoo({"info", reference, "--json"}).output)["uid"], "zoo-loopback");
    EXPECT_EQ(onZoo({"info", "{\"uid\":\"nobody\"}"}).status, 1);
    EXPECT_EQ(onZoo({"info", "{nothing}"}).status, 1);
    EXPECT_EQ(onZoo({"ref", "zoo-surround", "--input"}).status, 1);

    EXPECT_EQ(onZoo({"remember", "zoo-speakers", "hv", "false"}).status, 0);
    EXPECT_EQ(onZoo({"remember", "zoo-speakers", "nick", "desk speakers"}).status, 0);
    EXPECT_EQ(onZoo({"remember", "zoo-speakers", "nick"}).status, 2);
    EXPECT_EQ(onZoo({"remember", "zoo-speakers"}).output, "hv = false\nnick = \"desk speakers\"\n");
    EXPECT_EQ(onZoo({"forget", "zoo-speakers", "hv"}).status, 0);
    EXPECT_EQ(onZoo({"forget", "zoo-speakers", "hv"}).status, 1);
    EXPECT_EQ(onZoo({"forget", "zoo-speakers"}).status, 0);
    EXPECT_EQ(onZoo({"remember", "zoo-speakers"}).output, "");
}

TEST_F(DxrCommand, showsDevicesFromTheirArchives)
{
    const std::string path = testing::TempDir() + "/dxr-archive-" + std::to_string(getpid());
    const auto show = [&](const std::string& content) {
        std::ofstream(path, std::ios::binary) << content;
        return runTool({"show", path, "--simulated"});
    };
    std::string archive = runTool({"archive", "zoo-speakers", "--simulated"}).output;
    ASSERT_TRUE(archive.starts_with("DXRDevice:{")) << archive;
    EXPECT_NE(show(archive).output.find("Connected       yes"), std::string::npos);
    archive.replace(archive.find("zoo-speakers"), 3, "far");
    const ToolResult absent = show(archive);
    EXPECT_TRUE(absent.output.starts_with("⚠️ Built-in Speakers")) << absent.output;
    EXPECT_NE(absent.output.find("Connected       no"), std::string::npos);
    for (const std::string& junk : {std::string(), std::string("DXRDevice:{}"), std::string(3U << 20, '{')})
        EXPECT_EQ(show(junk).status, 1);
    std::filesystem::remove(path);
    EXPECT_EQ(runTool({"show", path, "--simulated"}).status, 1);
}

TEST_F(DxrCommand, letsNoNameDriveTheTerminal)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"list", "--simulated", "--all"}, {"info", "zoo-hidden", "--simulated"}}) {
        const ToolResult result = runTool(arguments);
        EXPECT_NE(result.output.find("Service\\x1B[31m Port\\x0D\\x0A"), std::string::npos) << result.output;
        EXPECT_FALSE(hasControls(result.output)) << result.output;
    }
}

TEST_F(DxrCommand, watchesWhatComesAndGoesUntilItIsStopped)
{
    ToolProcess watch({"watch", "--simulated", "--json"});
    ASSERT_TRUE(watch.waitFor("\"disconnected\""));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.finish(), 0);
    std::map<std::string, int> seen;
    for (const std::string& line : linesOf(watch.output())) {
        const json event = json::parse(line);
        ++seen[event.value("event", "") + " " + event.value("uid", "")]; // a default that is gone has no UID
    }
    EXPECT_EQ(seen["present zoo-usb-mic"], 1);
    EXPECT_EQ(seen["connected zoo-headphones"], 1);
    EXPECT_EQ(seen["changed zoo-headphones"], 1);
    EXPECT_EQ(seen["changed zoo-usb-mic"], 1);
    EXPECT_EQ(seen["disconnected zoo-headphones"], 1);
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
    ToolProcess stopped({"record", path("stopped.wav"), "--in", "zoo-loopback", "--simulated"});
    ASSERT_TRUE(stopped.waitFor("Loop-back"));
    usleep(600'000);
    stopped.signal(SIGINT);
    EXPECT_EQ(stopped.finish(), 0) << stopped.errors();
    EXPECT_GT(samplesOf(path("stopped.wav"), channels).size(), 10000U);

    constexpr size_t disk = 100'001;
    ToolProcess full({"record", path("full.wav"), "--in", "zoo-loopback", "--simulated"}, false, disk);
    EXPECT_EQ(full.finish(), 1);
    EXPECT_EQ(linesOf(full.errors()).size(), 1U) << full.errors();
    const size_t samples = samplesOf(path("full.wav"), channels).size();
    EXPECT_GT(samples * sizeof(float), disk - 200);
    EXPECT_EQ(samples % 2, 0U);

    ToolProcess killed({"record", path("killed.wav"), "--in", "zoo-loopback", "--simulated"});
    ASSERT_TRUE(killed.waitFor("Loop-back"));
    usleep(1'800'000);
    killed.signal(SIGKILL);
    killed.finish();
    EXPECT_GT(samplesOf(path("killed.wav"), channels).size(), 10000U);
}

TEST_F(DxrCommand, loopsUntilItIsStoppedAndTellsWhatHappened)
{
    ToolProcess loop({"loop", "--in", "zoo-ramp:1", "--in", "zoo-usb-mic", "--out", "zoo-speakers", "--out",
                      "zoo-surround:3-6", "--frames", "480", "--rate", "22050", "--simulated"},
                     true);
    ASSERT_TRUE(loop.waitFor("in blocks of 480 frames; round trip ")) << loop.output();
    ASSERT_TRUE(loop.waitFor("in USB Micropho…")) << loop.output();
    loop.signal(SIGTERM);
    EXPECT_EQ(loop.finish(), 0) << loop.output();
    EXPECT_NE(
        loop.output().find("Ramp Generator + USB Microphone -> Built-in Speakers + Living Room Receiver"),
        std::string::npos)
        << loop.output();
    EXPECT_NE(loop.output().find("frames moved"), std::string::npos) << loop.output();
    EXPECT_NE(loop.output().find(" ppm"), std::string::npos) << "a clock that was followed";
}

TEST_F(DxrCommand, writesATraceThatIsWholeOrSaysWhyNot)
{
    const ToolResult traced = runTool({"trace", path("run.json"), "--in", "zoo-loopback", "--out",
                                       "zoo-speakers", "--simulated", "--seconds", "1"});
    EXPECT_EQ(traced.status, 0) << traced.errors;
    size_t cycles = 0;
    for (const json& event : json::parse(std::ifstream(path("run.json"))))
        cycles += event.at("name") == "aggregate cycle";
    EXPECT_NEAR(static_cast<double>(cycles), 90, 60);
    std::stringstream svg;
    svg << std::ifstream(path("run.svg")).rdbuf();
    EXPECT_TRUE(svg.str().starts_with("<svg") && svg.str().ends_with("</svg>\n"));
    EXPECT_NE(svg.str().find("Loop-back Cable -&gt; Built-in Speakers"), std::string::npos);

    ToolProcess full({"trace", path("full.json"), "--simulated"}, false, 50'001);
    EXPECT_EQ(full.finish(), 1);
    EXPECT_EQ(linesOf(full.errors()).size(), 1U) << full.errors();
}

TEST_F(DxrCommand, demonstratesItselfInPlainLinesAndLively)
{
    const std::string picture = path("pictures/run.svg");
    const char* const settings = std::getenv("XDG_DATA_HOME");
    ToolProcess demo({"demo", "--seconds", "9", "--picture", picture});
    const int status = demo.finish();
    const std::string& told = demo.output();
    EXPECT_FALSE(hasControls(told)) << told;
    for (const char* line :
         {"engine        3 devices as one, by the clock of Stage Microphone", "disconnected  Headphones",
          "engine        no device: a timer keeps the time", "engine        Studio Monitors alone",
          "settings      Headphones: volume 100% -> 60%, as remembered", "yes told", "yes known", "yes time"})
        EXPECT_NE(told.find(line), std::string::npos) << line << "\n" << told;
    if (told.find("lost cycles") == std::string::npos) { // else the machine was too busy for good sound
        EXPECT_NE(told.find("yes sound"), std::string::npos) << told;
    }
    EXPECT_EQ(status, told.find("\nNO ") == std::string::npos ? 0 : 1) << told;
    EXPECT_FALSE(std::filesystem::exists(settings)) << "the user's own settings are left alone";
    std::stringstream svg;
    svg << std::ifstream(picture).rdbuf();
    EXPECT_TRUE(svg.str().starts_with("<svg") && svg.str().ends_with("</svg>\n"));
    EXPECT_NE(svg.str().find("volume 100% -&gt; 60%"), std::string::npos);

    ToolProcess lively({"demo", "--seconds", "60", "--picture", path("x.svg")}, true);
    ASSERT_TRUE(lively.waitFor("█"));
    lively.signal(SIGINT);
    EXPECT_EQ(lively.finish(), 1) << "it has not shown everything";
    EXPECT_GT(lively.output().rfind("\x1B[?25h"), lively.output().rfind("\x1B[?25l")); // the cursor is back

    const ToolResult unseen = runTool({"demo", "--picture", "/dev/null/x.svg"});
    EXPECT_EQ(unseen.status, 1);
    EXPECT_EQ(unseen.output, "") << "nobody is shown what cannot be kept";
}

TEST_F(DxrCommand, writesItsManualAndCompletesItself)
{
    ASSERT_EQ(runTool({"manual", path("man")}).status, 0);
    EXPECT_EQ(runTool({"manual", "/dev/null/man"}).status, 1);
    const std::string groff = "for page in man/*.1; do groff -man -Tutf8 -ww $page; done 2>&1 > pages; ";
    const ToolResult pages =
        pipeline(folder, groff + "ls man | wc -l; grep -c 'the default output if not given' pages");
    EXPECT_GT(std::stoi(pages.output), 15) << pages.output << pages.errors;
    EXPECT_EQ(linesOf(pages.output).size(), 2U) << "no warning: " << pages.output;
    const std::string complete =
        "dxr() { d \"$@\"; }; d completion bash > c; . ./c; _dxr; echo ${COMPREPLY[@]}";
    EXPECT_EQ(pipeline(folder, "COMP_WORDS=(dxr pl) COMP_CWORD=1; " + complete).output, "play plot\n");
    EXPECT_EQ(pipeline(folder, "COMP_WORDS=(dxr play --out zoo-s) COMP_CWORD=3; " + complete).output,
              "zoo-speakers zoo-surround\n");
    for (const char* shell : {"zsh", "fish"})
        EXPECT_NE(runTool({"completion", shell}).output.find("record"), std::string::npos);
}

/// The terminal is as it was before the tool had it whole.
void expectGivenBack(ToolProcess& tool)
{
    EXPECT_TRUE(tool.isCooked());
    const std::string& output = tool.output();
    EXPECT_GT(output.rfind("\x1B[?1049l"), output.rfind("\x1B[?1049h")) << "the other screen";
    EXPECT_GT(output.rfind("\x1B[?25h"), output.rfind("\x1B[?25l")) << "the cursor";
    EXPECT_GT(output.rfind("\x1B[?7h"), output.rfind("\x1B[?7l")) << "long lines";
}

TEST_F(DxrCommand, monitorsOnTheWholeTerminalAndGivesItBack)
{
    ToolProcess monitor({"monitor", "--simulated"}, true);
    ASSERT_TRUE(monitor.waitFor("USB Microphone")) << monitor.output();
    ASSERT_TRUE(monitor.waitFor("-12.0 dB")) << "what the microphone hears";
    EXPECT_FALSE(monitor.isCooked());
    ASSERT_TRUE(monitor.waitFor("connected     Wireless Headphones"));
    ASSERT_TRUE(monitor.waitFor("default       output: Wireless Headphones"));
    ASSERT_TRUE(monitor.waitFor("out Wireless Headphones")) << "it goes where the default goes";
    monitor.resize(40, 12);
    ASSERT_TRUE(monitor.waitFor("q quits   l plays the inputs on the ou…")) << monitor.output();
    monitor.press("l");
    ASSERT_TRUE(monitor.waitFor("l silences"));
    monitor.press("xyz\x1B[Aq");
    EXPECT_EQ(monitor.finish(), 0);
    expectGivenBack(monitor);

    struct {
        const char* why;
        std::vector<std::string> arguments;
        int signal;
        int status;
    } const rows[] = {
        {"Ctrl-C", {"--in", "zoo-usb-mic", "--out", "zoo-surround:1,2"}, SIGINT, 0},
        {"asked to end", {}, SIGTERM, 0},
        {"a fault of its own", {}, SIGSEGV, 128 + SIGSEGV},
        {"aborted", {}, SIGABRT, 128 + SIGABRT},
    };
    for (const auto& row : rows) {
        std::vector<std::string> arguments{"monitor", "--simulated"};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
        ToolProcess ended(arguments, true);
        ASSERT_TRUE(ended.waitFor("q quits")) << row.why;
        ended.signal(row.signal);
        EXPECT_EQ(ended.finish(), row.status) << row.why;
        expectGivenBack(ended);
    }
    const ToolResult plain = runTool({"monitor", "--simulated"});
    EXPECT_EQ(plain.status, 1);
    EXPECT_EQ(linesOf(plain.errors).size(), 1U) << plain.errors;
    ToolProcess unknown({"monitor", "--simulated", "--in", "nobody"}, true);
    EXPECT_EQ(unknown.finish(), 1);
    EXPECT_EQ(unknown.output().find("\x1B[?1049h"), std::string::npos) << "an error stays to be read";
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
            for (size_t k = 100; k + 100 < static_cast<size_t>(row.to); ++k)
                worst = std::max(worst, std::abs(static_cast<double>(samples[3 * k + c]) -
                                                 0.25 * static_cast<double>(c + 1) *
                                                     std::sin(2 * std::numbers::pi * hertz[c] *
                                                              static_cast<double>(k) / row.to)));
            // The low-pass of a rate that goes up is a frame late; the rest is noise.
            const double slack = 2.5 * 2 * std::numbers::pi * hertz[c] / std::min(row.from, row.to);
            EXPECT_LT(worst, 0.25 * static_cast<double>(c + 1) * slack)
                << row.from << " to " << row.to << ", channel " << c;
        }
    }
}

TEST_F(DxrCommand, drawsTheSamplersResponse)
{
    const ToolResult result =
        runTool({"plot", "response", "--from", "48000", "--to", "44100", path("r.svg")});
    EXPECT_EQ(result.status, 0) << result.errors;
    double hertz = 0, response = 0, alias = 0, noise = 0;
    const std::vector<std::string> lines = linesOf(result.output);
    ASSERT_EQ(lines.size(), 6U) << result.output;
    ASSERT_EQ(std::sscanf(lines[2].c_str(), "%lf Hz %lf dB %lf dB %lf dB", &hertz, &response, &alias, &noise),
              4);
    EXPECT_NEAR(hertz, 1000, 50);
    EXPECT_NEAR(response, 0, 0.05);
    EXPECT_NEAR(noise, 71.5, 3);
    EXPECT_LT(alias, -90);
    std::ifstream svg(path("r.svg"));
    const std::string drawing(std::istreambuf_iterator<char>(svg), {});
    EXPECT_TRUE(drawing.starts_with("<svg") && drawing.ends_with("</svg>\n"));
    EXPECT_EQ(drawing.find("nan"), std::string::npos);
}

} // namespace
