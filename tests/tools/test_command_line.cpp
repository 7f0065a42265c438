#include "DxrCommand.h"

#include <algorithm>
#include <csignal>
#include <functional>
#include <map>
#include <numeric>
#include <unistd.h>

namespace {

using nlohmann::json;

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
        {{"set", "sim-speakers", "--simulated", "--volume", "+101%"}, 2},
        {{"set", "sim-speakers", "--simulated", "--volume", "+5%", "--mute", "toggle"}, 0},
        {{"-V"}, 0},
        {{"help"}, 0},
        {{"list"}, 1}, // no server
        {{"info", "1", "--simulated"}, 1},
        {{"record", path("x.mp4"), "--simulated"}, 1},
        {{"record", path("x.flac"), "--simulated", "--bits", "32"}, 1},
        {{"record", "-", "--simulated", "--format", "aiff"}, 1},
        {{"play", "-", "--simulated", "--format", "s16:0:2"}, 1},
        {{"list", "--hardware", "nowhere"}, 1},
        {{"list", "--hardware", "alsa", "--simulated"}, 2},
        {{"set", "sim-speakers", "--simulated"}, 2},
        {{"aggregate", "create", "Both", "sim-speakers", "sim-loopback", "--seconds", "0.3", "--simulated"},
         0},
        {{"aggregate", "create", "Both", "sim-speakers", "nobody", "--simulated"}, 1},
        {{"set", "sim-speakers", "--simulated", "--volume", "1.01"}, 2},
        {{"set", "sim-speakers", "--simulated", "--volume", "50"}, 2},
        {{"set", "sim-speakers", "--simulated", "--volume", "nan"}, 2},
        {{"set", "sim-speakers", "--simulated", "--mute", "maybe"}, 2},
        {{"record", "x.wav", "--in", "sim-ramp", "--seconds", "-1"}, 2},
        {{"trace"}, 2},
        {{"--help"}, 0},
        {{"--version"}, 0},
        {{"info", "nobody", "--simulated"}, 1},
        {{"info", "", "--simulated"}, 1},
        {{"info", "Built-in", "--simulated"}, 0},
        {{"set", "sim-usb-mic", "--simulated", "--output", "--mute", "on"}, 1},
        {{"set", "sim-speakers", "--simulated", "--rate", "12345"}, 1},
        {{"set", "sim-speakers", "--simulated", "--source", "Nowhere"}, 1},
        {{"set", "speakers", "--simulated", "--volume", "25%", "--source", "line out"}, 0},
        {{"record", "/nowhere/x.wav", "--in", "sim-ramp", "--simulated", "--seconds", "0.1"}, 1},
        {{"record", "/dev/full", "--in", "sim-ramp", "--simulated", "--seconds", "0.1"}, 1},
        {{"loop", "--in", "sim-ramp", "--in", "sim-ramp:1", "--out", "sim-speakers", "--simulated"}, 1},
        {{"loop", "--in", "sim-ramp:3", "--out", "sim-speakers", "--simulated"}, 1},
        {{"loop", "--in", "sim-ramp", "--out", "sim-speakers", "--simulated", "--rate", "5"}, 1},
        {{"loop", "--in", "sim-ramp", "--out", "sim-speakers", "--simulated", "--frames", "4294967295"}, 1},
        {{"play", good, "--out", "sim-speakers:1", "--channels", "1,1", "--simulated"}, 1},
        {{"play", good, "--out", "sim-speakers", "--channels", "2", "--simulated"}, 1},
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

TEST_F(DxrCommand, listsTheSameDevicesAsTableAndAsJSON)
{
    const json devices = json::parse(runTool({"list", "--simulated", "--all", "--json"}).output);
    EXPECT_EQ(devices.size(), 6U);
    const auto receiver =
        std::ranges::find(devices, "sim-surround", [](const json& each) { return each["uid"]; });
    ASSERT_NE(receiver, devices.end());
    EXPECT_EQ((*receiver)["outputs"]["channels"], 6);
    EXPECT_EQ((*receiver)["outputs"]["channel_volumes"][5], 0.6);
    EXPECT_EQ((*receiver)["outputs"]["channel_names"][3], "Low Frequencies");
    EXPECT_NE(runTool({"info", "sim-surround", "--simulated"})
                  .output.find("6: Front Left, Front Right, Front Centre"),
              std::string::npos);
    EXPECT_EQ((*receiver)["outputs"]["volume"], nullptr);
    EXPECT_EQ((*receiver)["sample_rates"][2]["maximum"], 192000.0);
    EXPECT_EQ(json::parse(runTool({"info", "sim-surround", "--simulated", "--json"}).output), *receiver);

    const ToolResult table = runTool({"list", "--simulated"});
    for (const json& device : devices)
        EXPECT_EQ(table.output.find(device["uid"].get<std::string>()) == std::string::npos,
                  device["hidden"].get<bool>());
    const ToolResult narrow = pipeline("COLUMNS=20 d list");
    for (const std::string& line : linesOf(narrow.output))
        EXPECT_LE(std::ranges::count_if(line, [](char c) { return (c & 0xC0) != 0x80; }), 20) << line;

    // Every key is in the document, which names the version.
    const std::string document = contentOf(DXR_JSON_DOCUMENT);
    EXPECT_NE(document.find("`schema` | " + std::to_string((*receiver)["schema"].get<int>())),
              std::string::npos);
    const std::function<void(const json&)> expectKeys = [&](const json& value) {
        if (!value.is_structured())
            return;
        for (const auto& [key, inner] : value.items()) {
            const bool isKnown =
                !value.is_object() || document.find("| `" + key + "` |") != std::string::npos;
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

TEST_F(DxrCommand, remembersAndRefersToDevices)
{
    const auto onSimulated = [](std::vector<std::string> arguments) {
        arguments.emplace_back("--simulated");
        return runTool(arguments);
    };
    const std::string reference = linesOf(onSimulated({"ref", "sim-loopback", "--input"}).output).at(0);
    EXPECT_EQ(json::parse(reference), (json{{"uid", "sim-loopback"}, {"i", true}}));
    EXPECT_EQ(json::parse(onSimulated({"info", reference, "--json"}).output)["uid"], "sim-loopback");
    EXPECT_EQ(onSimulated({"info", "{\"uid\":\"nobody\"}"}).status, 1);
    EXPECT_EQ(onSimulated({"info", "{nothing}"}).status, 1);
    EXPECT_EQ(onSimulated({"ref", "sim-surround", "--input"}).status, 1);

    EXPECT_EQ(onSimulated({"remember", "sim-speakers", "hv", "false"}).status, 0);
    EXPECT_EQ(onSimulated({"remember", "sim-speakers", "nick", "desk speakers"}).status, 0);
    EXPECT_EQ(onSimulated({"remember", "sim-speakers", "nick"}).status, 2);
    EXPECT_EQ(onSimulated({"remember", "sim-speakers"}).output, "hv = false\nnick = \"desk speakers\"\n");
    EXPECT_EQ(onSimulated({"forget", "sim-speakers", "hv"}).status, 0);
    EXPECT_EQ(onSimulated({"forget", "sim-speakers", "hv"}).status, 1);
    EXPECT_EQ(onSimulated({"forget", "sim-speakers"}).status, 0);
    EXPECT_EQ(onSimulated({"remember", "sim-speakers"}).output, "");
}

TEST_F(DxrCommand, showsDevicesFromTheirArchives)
{
    const std::string path = testing::TempDir() + "/dxr-archive-" + std::to_string(getpid());
    const auto show = [&](const std::string& content) {
        std::ofstream(path, std::ios::binary) << content;
        return runTool({"show", path, "--simulated"});
    };
    std::string archive = runTool({"archive", "sim-speakers", "--simulated"}).output;
    ASSERT_TRUE(archive.starts_with("DXRDevice:{")) << archive;
    EXPECT_NE(show(archive).output.find("Connected       yes"), std::string::npos);
    archive.replace(archive.find("sim-speakers"), 3, "far");
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
         {std::vector<std::string>{"list", "--simulated", "--all"}, {"info", "sim-hidden", "--simulated"}}) {
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
    EXPECT_EQ(seen["present sim-usb-mic"], 1);
    EXPECT_EQ(seen["connected sim-headphones"], 1);
    EXPECT_EQ(seen["changed sim-headphones"], 1);
    EXPECT_EQ(seen["changed sim-usb-mic"], 1);
    EXPECT_EQ(seen["disconnected sim-headphones"], 1);

    ToolProcess list({"list", "--watch", "--simulated"});
    ASSERT_TRUE(list.waitFor("Wireless Headphones")) << list.output();
    ASSERT_TRUE(list.waitFor("35%")) << "a list for each change";
    list.signal(SIGINT);
    EXPECT_EQ(list.finish(), 0);
    EXPECT_EQ(linesOf(list.output()).at(1).find("Wireless"), std::string::npos) << "not in the first";
}

} // namespace
