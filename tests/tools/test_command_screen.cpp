#include "DxrCommand.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

using nlohmann::json;

TEST_F(DxrCommand, loopsUntilItIsStoppedAndTellsWhatHappened)
{
    ToolProcess loop({"loop", "--in", "sim-ramp:1", "--in", "sim-usb-mic", "--out", "sim-speakers", "--out",
                      "sim-surround:3-6", "--frames", "480", "--rate", "22050", "--simulated"},
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
    const ToolResult traced = runTool({"trace", path("run.json"), "--in", "sim-loopback", "--out",
                                       "sim-speakers", "--simulated", "--seconds", "1"});
    EXPECT_EQ(traced.status, 0) << traced.errors;
    size_t cycles = 0;
    for (const json& event : json::parse(std::ifstream(path("run.json"))))
        cycles += event.at("name") == "aggregate cycle";
    EXPECT_NEAR(static_cast<double>(cycles), 90, 60);
    const std::string svg = contentOf(path("run.svg"));
    EXPECT_TRUE(svg.starts_with("<svg") && svg.ends_with("</svg>\n"));
    EXPECT_NE(svg.find("Loop-back Cable -&gt; Built-in Speakers"), std::string::npos);

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
    const std::string& printed = demo.output();
    EXPECT_FALSE(hasControls(printed)) << printed;
    for (const char* line :
         {"3 devices as one, by the clock of Stage Microphone", "Headphones is gone; the others go on",
          "no device: a timer keeps the time", "Studio Monitors alone", "Headphones is back after",
          "Headphones: volume 100% -> 60%, as remembered", "yes reported", "yes known", "yes time",
          " restarts, "})
        EXPECT_NE(printed.find(line), std::string::npos) << line << "\n" << printed;
    if (printed.find("0 late cycles") != std::string::npos) { // else the machine was too busy for good sound
        EXPECT_NE(printed.find("yes sound"), std::string::npos) << printed;
    }
    EXPECT_EQ(status, printed.find("\nNO ") == std::string::npos ? 0 : 1) << printed;
    EXPECT_FALSE(std::filesystem::exists(settings)) << "the user's own settings are left alone";
    const std::string svg = contentOf(picture);
    EXPECT_TRUE(svg.starts_with("<svg") && svg.ends_with("</svg>\n"));
    for (const char* text :
         {"volume 100% -&gt; 60%", "drift of the clocks", "level of the tone", "Stage Microphone"})
        EXPECT_NE(svg.find(text), std::string::npos) << text;
    EXPECT_EQ(svg.find("nan"), std::string::npos);

    ToolProcess lively({"demo", "--seconds", "60", "--picture", path("x.svg")}, true);
    ASSERT_TRUE(lively.waitFor("█"));
    lively.signal(SIGINT);
    EXPECT_EQ(lively.finish(), 1) << "it has not shown everything";
    EXPECT_GT(lively.output().rfind("\x1B[?25h"), lively.output().rfind("\x1B[?25l")); // the cursor is back

    const ToolResult unseen = runTool({"demo", "--picture", "/dev/null/x.svg"});
    EXPECT_EQ(unseen.status, 1);
    EXPECT_EQ(unseen.output, "") << "a picture that cannot be kept is reported first";
}

TEST_F(DxrCommand, writesItsManualAndCompletesItself)
{
    ASSERT_EQ(runTool({"manual", path("man")}).status, 0);
    EXPECT_EQ(runTool({"manual", "/dev/null/man"}).status, 1);
    const std::string groff = "for page in man/*.1; do groff -man -Tutf8 -ww $page; done 2>&1 > pages; ";
    const ToolResult pages =
        pipeline(groff + "ls man | wc -l; grep -c 'the default output if not given' pages");
    EXPECT_GT(std::stoi(pages.output), 15) << pages.output << pages.errors;
    EXPECT_EQ(linesOf(pages.output).size(), 2U) << "no warning: " << pages.output;
    const std::string complete =
        "dxr() { d \"$@\"; }; d completion bash > c; . ./c; _dxr; echo ${COMPREPLY[@]}";
    EXPECT_EQ(pipeline("COMP_WORDS=(dxr pl) COMP_CWORD=1; " + complete).output, "play plot\n");
    EXPECT_EQ(pipeline("COMP_WORDS=(dxr play --out sim-s) COMP_CWORD=3; " + complete).output,
              "sim-speakers sim-surround\n");
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
    ASSERT_TRUE(monitor.waitFor("out  Wireless Headphones")) << "it goes where the default goes";
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
        {"Ctrl-C", {"--in", "sim-usb-mic", "--out", "sim-surround:1,2"}, SIGINT, 0},
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
    const std::string drawing = contentOf(path("r.svg"));
    EXPECT_TRUE(drawing.starts_with("<svg") && drawing.ends_with("</svg>\n"));
    EXPECT_EQ(drawing.find("nan"), std::string::npos);
}

} // namespace
