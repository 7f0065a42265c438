#include "DxrCommand.h"

#include <algorithm>
#include <csignal>
#include <functional>
#include <map>
#include <sstream>

namespace {

/// Runs a command line whose words contain no spaces, followed by `more`.
ToolResult run(const std::string& line, std::vector<std::string> more = {})
{
    std::istringstream stream(line);
    std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    words.insert(words.end(), more.begin(), more.end());
    words.emplace_back("--simulated");
    return runTool(words);
}

TEST_F(DxrCommand, separatesWrongUsageFromFailure)
{
    file("good.wav", wave(8000, 8000));
    std::filesystem::current_path(folder);
    const std::map<int, std::vector<const char*>> linesByStatus{
        {0,
         {"-V", "--help", "help", "info Built-in --simulated",
          "set sim-speakers --simulated --volume +5% --mute toggle",
          "set speakers --simulated --volume 25% --rate 96000",
          "aggregate create Both sim-speakers sim-loopback --seconds 0.3 --rate 44100 --simulated"}},
        {1,
         {"list", // there is no server
          "list --hardware nowhere",
          "info 1 --simulated",
          "info nobody --simulated",
          "set sim-usb-mic --simulated --output --mute on",
          "set sim-speakers --simulated --rate 12345",
          "set sim-speakers --simulated --source Nowhere",
          "set sim-loopback --simulated --volume 1",
          "aggregate create Both sim-speakers nobody --simulated",
          "aggregate create Both sim-speakers --clock sim-usb-mic --simulated",
          "record x.mp4 --simulated",
          "record x.flac --simulated --bits 32",
          "record - --simulated --format aiff",
          "record /nowhere/x.wav --simulated --seconds 0.1",
          "record /dev/full --simulated --seconds 0.1",
          "play - --simulated --format s16:0:2",
          "play good.wav --out sim-speakers:1 --channels 1,1 --simulated",
          "play good.wav --channels 2 --simulated",
          "play good.wav --rate 44100 --simulated",
          "loop --in sim-ramp --in sim-ramp:1 --simulated",
          "loop --in sim-ramp:3 --simulated",
          "loop --simulated --rate 5",
          "loop --simulated --frames 4294967295",
          "trace /nowhere/x.json --simulated",
          "trace /dev/full --simulated",
          "resample good.wav good.wav --rate 44100",
          "resample good.wav /nowhere/out.wav --rate 44100",
          "resample good.wav . --rate 44100",
          "resample good.wav /dev/full --rate 44100",
          "plot response /dev/full --from 44100 --to 48000"}},
        {2,
         {"",
          "nonsense",
          "list --nonsense",
          "info --simulated",
          "play",
          "trace",
          "list --hardware alsa --simulated",
          "set sim-speakers --simulated",
          "set sim-speakers --simulated --volume +101%",
          "set sim-speakers --simulated --volume 1.01",
          "set sim-speakers --simulated --volume 50",
          "set sim-speakers --simulated --volume nan",
          "set sim-speakers --simulated --channel 1 --rate 48000",
          "set sim-speakers --simulated --mute maybe",
          "record x.wav --in sim-ramp --seconds -1",
          "resample good.wav out.wav",
          "resample good.wav out.wav --rate 0",
          "resample good.wav out.wav --rate 44100.5x",
          "plot response x.svg --from 44100",
          "plot response x.svg --from 44100 --to -1"}},
    };
    for (const auto& [status, lines] : linesByStatus)
        for (const char* line : lines) {
            SCOPED_TRACE(line);
            std::istringstream words(line);
            const ToolResult result = runTool({std::istream_iterator<std::string>(words), {}});
            EXPECT_EQ(result.status, status) << result.errors;
            EXPECT_EQ(result.errors.empty(), status == 0);
            EXPECT_TRUE(status != 1 || linesOf(result.errors).size() == 1) << result.errors;
        }
    EXPECT_EQ(runTool({"lst"}).errors,
              "no command 'lst'; did you mean 'list'?\nRun with --help for more information.\n");
    EXPECT_EQ(linesOf(runTool({"x\x1B[2J"}).errors).at(0), "no command 'x\\x1B[2J'");
    EXPECT_EQ(linesOf(runTool({"loop", "--seconds", "0"}).errors).at(0), "--seconds: must be above 0");
}

TEST_F(DxrCommand, setsWhatItPrints)
{
    EXPECT_EQ(run("set sim-surround --volume -30%").output, "Living Room Receiver: output volume 30%\n");
    EXPECT_EQ(run("set sim-surround --volume 10% --channel 5").output,
              "Living Room Receiver: output volume 10% on channel 5\n");
    EXPECT_EQ(run("set sim-speakers --mute on --default --source", {"line out"}).output,
              "Built-in Speakers: output mute on\nBuilt-in Speakers: output source Line Out\n"
              "Built-in Speakers: default output\n");
}

TEST_F(DxrCommand, listsTheSameDevicesAsTableAndAsJSON)
{
    const json devices = json::parse(run("list --all --json").output);
    EXPECT_EQ(devices.size(), 6U);
    const auto receiver =
        std::ranges::find(devices, "sim-surround", [](const json& each) { return each["uid"]; });
    ASSERT_NE(receiver, devices.end());
    const json& outputs = (*receiver)["outputs"];
    EXPECT_EQ(outputs["channels"], 6);
    EXPECT_EQ(outputs["channel_volumes"][5], 0.6);
    EXPECT_EQ(outputs["channel_names"][3], "Low Frequencies");
    EXPECT_EQ(outputs["volume"], nullptr);
    EXPECT_EQ((*receiver)["sample_rates"][2]["maximum"], 192000.0);
    EXPECT_EQ(json::parse(run("info sim-surround --json").output), *receiver);
    expectContains(run("info sim-surround").output, "6: Front Left, Front Right, Front Centre");

    const ToolResult table = run("list");
    for (const json& device : devices)
        EXPECT_EQ(table.output.find(device["uid"].get<std::string>()) == std::string::npos,
                  device["hidden"].get<bool>());
    for (const std::string& line : linesOf(pipeline("COLUMNS=20 d list").output))
        EXPECT_LE(std::ranges::count_if(line, [](char c) { return (c & 0xC0) != 0x80; }), 20) << line;
    for (const char* line : {"list --all", "info sim-hidden"}) { // names cannot control the terminal
        expectContains(run(line).output, "Service\\x1B[31m Port\\x0D\\x0A");
        EXPECT_FALSE(hasControls(run(line).output));
    }

    // The document describes every key and states the schema version.
    const std::string document = contentOf(DXR_JSON_DOCUMENT);
    expectContains(document, "`schema` | " + std::to_string((*receiver)["schema"].get<int>()));
    const std::function<void(const json&)> expectKeys = [&](const json& value) {
        if (!value.is_structured())
            return;
        for (const auto& [key, inner] : value.items()) {
            if (value.is_object())
                expectContains(document, "| `" + key + "` |");
            expectKeys(inner);
        }
    };
    expectKeys(devices);
}

TEST_F(DxrCommand, remembersAndRefersToDevices)
{
    const std::string reference = linesOf(run("ref sim-loopback --input").output).at(0);
    EXPECT_EQ(json::parse(reference), (json{{"uid", "sim-loopback"}, {"i", true}}));
    EXPECT_EQ(json::parse(run("info --json", {reference}).output)["uid"], "sim-loopback");
    for (const char* line : {"info {\"uid\":\"nobody\"}", "info {nothing}", "ref sim-surround --input"})
        EXPECT_EQ(run(line).status, 1) << line;

    EXPECT_EQ(run("remember sim-speakers hv false").status, 0);
    EXPECT_EQ(run("remember sim-speakers nick", {"desk speakers"}).status, 0);
    EXPECT_EQ(run("remember sim-speakers nick").status, 2);
    EXPECT_EQ(run("remember sim-speakers").output, "hv = false\nnick = \"desk speakers\"\n");
    EXPECT_EQ(run("forget sim-speakers hv").status, 0);
    EXPECT_EQ(run("forget sim-speakers hv").status, 1);
    EXPECT_EQ(run("forget sim-speakers").status, 0);
    EXPECT_EQ(run("remember sim-speakers").output, "");
}

TEST_F(DxrCommand, showsDevicesFromTheirArchives)
{
    const auto show = [&](const std::string& content) { return run("show", {file("archive", content)}); };
    std::string archive = run("archive sim-speakers").output;
    ASSERT_TRUE(archive.starts_with("DXRDevice:{")) << archive;
    expectContains(show(archive).output, "Connected       yes");
    archive.replace(archive.find("sim-speakers"), 3, "far");
    const ToolResult absent = show(archive);
    EXPECT_TRUE(absent.output.starts_with("⚠️ Built-in Speakers")) << absent.output;
    expectContains(absent.output, "Connected       no");
    for (const std::string& junk : {std::string(), std::string("DXRDevice:{}"), std::string(3U << 20, '{')})
        EXPECT_EQ(show(junk).status, 1);
    EXPECT_EQ(run("show", {path("missing")}).status, 1);
}

TEST_F(DxrCommand, watchesDevicesUntilItIsStopped)
{
    ToolProcess watch({"watch", "--simulated", "--json"});
    ASSERT_TRUE(watch.waitFor("\"disconnected\""));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.finish(), 0);
    std::map<std::string, int> seen;
    for (const std::string& line : linesOf(watch.output())) {
        const json event = json::parse(line);
        ++seen[event.value("event", "") + " " + event.value("uid", "") + " " + event.value("property", "")];
    }
    for (const char* event :
         {"present sim-usb-mic ", "connected sim-headphones ", "changed sim-headphones outputs/volume",
          "changed sim-usb-mic name", "changed sim-speakers outputs/source", "disconnected sim-headphones "})
        EXPECT_EQ(seen[event], 1) << event;
    EXPECT_EQ(seen["default sim-headphones "], 2) << "output and system output";

    ToolProcess list({"list", "--watch", "--simulated"});
    ASSERT_TRUE(list.waitFor("Wireless Headphones")) << list.output();
    ASSERT_TRUE(list.waitFor("35%")) << "a list for each change";
    list.signal(SIGINT);
    EXPECT_EQ(list.finish(), 0);
    EXPECT_EQ(linesOf(list.output()).at(1).find("Wireless"), std::string::npos) << "not in the first";
}

} // namespace
