#include "DxrCommand.h"

#include "Eventually.h"

#include <csignal>
#include <map>
#include <regex>

namespace {

TEST_F(DxrCommand, separatesWrongUsageFromFailure)
{
    ASSERT_EQ(run("d record good.wav --in sim-usb-mic:1 --rate 48000 --seconds 0.1").status, 0);
    const std::map<int, std::vector<const char*>> linesByStatus{
        {0,
         {"dxr -V", "dxr help", "d info Built-in", "d set sim-speakers --volume +5% --mute toggle",
          "d set speakers --volume 25% --rate 96000",
          "d aggregate create Both sim-speakers sim-loopback --seconds 0.3 --rate 44100"}},
        {1,
         {"dxr list", // there is no server
          "d ref sim-surround --input", "d set sim-speakers --rate 12345", "d set sim-loopback --volume 1",
          "d record x.mp4", "d record /dev/full --seconds 0.1", "d play - --format s16:0:2",
          "d play good.wav --channels 2", "d loop --in sim-ramp --in sim-ramp:1", "d monitor",
          "d trace /dev/full", "dxr demo --picture /dev/null/x.svg", "dxr manual /dev/null/man",
          "dxr resample good.wav good.wav --rate 44100", "dxr resample good.wav /dev/full --rate 44100",
          "d list --watch > /dev/full", "dxr --help > /dev/full",
          "d remember sim-speakers x $(printf '[%.0s' {1..60000})$(printf ']%.0s' {1..60000})",
          "dxr plot response /dev/full --from 44100 --to 48000"}},
        {2,
         {"dxr", "dxr list --nonsense", "d info", "d play", "d list --hardware alsa", "d set sim-speakers",
          "d set sim-speakers --volume 50", "d set sim-speakers --volume nan",
          "d set sim-speakers --volume +", "d set sim-speakers --volume loud",
          "d set sim-speakers --channel 1 --rate 48000", "d set sim-speakers --mute maybe",
          "d record x.wav --in sim-ramp --seconds -1", "d remember sim-speakers nick",
          "dxr resample good.wav out.wav --rate 44100.5x", "dxr plot response x.svg --from 44100"}},
    };
    for (const auto& [status, lines] : linesByStatus)
        for (const char* line : lines) {
            SCOPED_TRACE(line);
            const ToolResult result = run(line);
            EXPECT_EQ(result.status, status) << result.errors;
            EXPECT_EQ(result.errors.empty(), status == 0);
            EXPECT_TRUE(status != 1 || linesOf(result.errors).size() == 1) << result.errors;
        }
    EXPECT_EQ(run("dxr lst").errors,
              "no command 'lst'; did you mean 'list'?\nRun with --help for more information.\n");
    expectContains(run("d record x.wav --in sim-usb-mic:9").errors, "has 1 input channel, not 9");
    expectContains(run("d set sim-usb-mic --mute on --channel 9").errors, "has 1 input channel, not 9");
    expectContains(run("d set sim-speakers --channel 0 --mute on").errors, "--channel: must be above 0\n");
    for (const char* line :
         {"dxr plot response x.svg --from nan --to 5000", "dxr demo --seconds nan", "dxr list --hardware x",
          "dxr plot drift x.svg --lateness nan", "d set sim-speakers --rate inf"})
        EXPECT_EQ(run(line).status, 2) << line;
    EXPECT_EQ(linesOf(run("dxr $'x\\e[2J'").errors).at(0), "no command 'x\\x1B[2J'");
}

TEST_F(DxrCommand, setsRemembersAndRefersToDevices)
{
    const std::string archived = "d archive sim-speakers > a; sed s/sim-speakers/far/ a > b; d show ";
    expectRows({
        {"less", "d set sim-surround --volume -30%", 0, "Living Room Receiver: output volume 30%\n"},
        {"one channel", "d set sim-surround --volume 10% --channel 5", 0, "volume 10% on channel 5\n"},
        {"several", "d set sim-speakers --mute on --default --source 'line out'", 0,
         "Built-in Speakers: output mute on\nBuilt-in Speakers: output source Line Out\n"
         "Built-in Speakers: default output\n"},
        {"reference", "d ref sim-loopback --input", 0, "{\"i\":true,\"uid\":\"sim-loopback\"}\n"},
        {"its side", "d ref \"$(d ref sim-loopback --input)\"", 0, "{\"i\":true,"},
        {"the other", "d ref \"$(d ref sim-loopback)\" --input 2>&1", 1, "is to the device's output"},
        {"its device", "d info '{\"uid\":\"sim-loopback\",\"i\":true}'", 0, "Loop-back Cable"},
        {"the default input", "d ref default --input; d info default", 0, "sim-usb-mic"},
        {"settings", "d remember sim-speakers hv false && d remember sim-speakers nick 'desk speakers'", 0,
         ""},
        {"stored", "d remember sim-speakers", 0, "hv = false\nnick = \"desk speakers\"\n"},
        {"forgotten", "d forget sim-speakers hv; d remember sim-speakers", 0, "nick = \"desk speakers\"\n"},
        {"not stored", "d forget sim-speakers hv", 1, ""},
        {"all", "d forget sim-speakers; d remember sim-speakers | wc -l", 0, "0\n"},
        {"on a disk that cannot be written", "XDG_DATA_HOME=/proc d remember sim-speakers hv false", 1, ""},
        {"that cannot be read",
         "mkdir -p x/dxr/com.veltorrin.device-overrides.db; XDG_DATA_HOME=$PWD/x d forget sim-speakers", 1,
         ""},
        {"archive", archived + "a", 0, "Connected       yes"},
        {"of an absent device", archived + "b", 0, "Connected       no"},
        {"marked", "d show b | head -1", 0, "⚠️ Built-in Speakers"},
        {"no archive", "echo 'DXRDevice:{}' > c; d show c", 1, ""},
        {"too large", "head -c 3000000 /dev/zero > c; d show c", 1, ""},
    });
}

TEST_F(DxrCommand, listsTheSameDevicesAsTableAndAsJSON)
{
    const std::string listed = run("d list --all --json").output;
    const json devices = json::parse(listed);
    EXPECT_EQ(devices.size(), 6U);
    const json receiver = json::parse(run("d info sim-surround --json").output);
    EXPECT_NE(std::ranges::find(devices, receiver), devices.end());
    const json& outputs = receiver["outputs"];
    EXPECT_EQ(outputs["channels"], 6);
    EXPECT_EQ(outputs["channel_volumes"][5], 0.6);
    EXPECT_EQ(outputs["channel_names"][3], "Low Frequencies");
    EXPECT_EQ(outputs["volume"], nullptr);
    EXPECT_EQ(receiver["sample_rates"][2]["maximum"], 192000.0);
    expectContains(run("d info sim-surround").output, "6: Front Left, Front Right, Front Centre");

    const ToolResult table = run("d list");
    for (const json& device : devices)
        EXPECT_EQ(table.output.find(device["uid"].get<std::string>()) == std::string::npos,
                  device["hidden"].get<bool>());
    for (const char* line : {"d list --all", "d info sim-hidden"}) { // names cannot control the terminal
        expectContains(run(line).output, "Service\\x1B[31m Port\\x0D\\x0A");
        EXPECT_EQ(run(line).output.find_first_of(controls), std::string::npos);
    }

    // The document describes every key and states the schema version.
    const std::string document = contentOf(DXR_JSON_DOCUMENT);
    expectContains(document, "`schema` | " + std::to_string(receiver["schema"].get<int>()));
    const std::regex key("\"(\\w+)\": ");
    for (std::sregex_iterator found(listed.begin(), listed.end(), key), end; found != end; ++found)
        expectContains(document, "| `" + (*found)[1].str() + "` |");
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
    EXPECT_EQ(linesOf(list.output()).at(1).find("Wireless"), std::string::npos) << "not in the first";

    const ToolProcess nowhere({"watch"});
    EXPECT_TRUE(eventually([&] { return nowhere.errors().starts_with("Waiting: cannot connect"); }));
}

} // namespace
