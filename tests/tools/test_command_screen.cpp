#include "DxrCommand.h"

#include <cstdio>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

void expectWholeSVG(const std::string& svg)
{
    EXPECT_TRUE(svg.starts_with("<svg") && svg.ends_with("</svg>\n"));
    EXPECT_EQ(svg.find("nan"), std::string::npos);
}

TEST_F(DxrCommand, writesAWholeTrace)
{
    const ToolResult traced = run("d trace run.json --in sim-loopback --out sim-speakers --seconds 1");
    EXPECT_EQ(traced.status, 0) << traced.errors;
    size_t cycles = 0;
    for (const json& event : json::parse(std::ifstream(path("run.json"))))
        cycles += event.at("name") == "aggregate cycle";
    EXPECT_TRUE(cycles > 0 && cycles < 150) << cycles; // few if the machine is busy
    EXPECT_EQ(traced.output.find("\n0 cycles not seen"), std::string::npos) << traced.output;
    const std::string svg = contentOf(path("run.svg"));
    expectWholeSVG(svg);
    expectContains(svg, "Loop-back Cable -&gt; Built-in Speakers");

    const ToolResult full = runOnDisk(50'001, "d trace full.json");
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(linesOf(full.errors).size(), 1U) << full.errors;
}

TEST_F(DxrCommand, demonstratesItself)
{
    const ToolResult demo = run("dxr demo --seconds 9 --picture pictures/run.svg");
    EXPECT_EQ(demo.output.find_first_of(controls), std::string::npos) << demo.output;
    // Otherwise the machine is too busy: sound is lost, and what lasts for a short time is not seen.
    if (demo.output.find(": 0 gaps (0 frames lost), 0 late cycles") != std::string::npos)
        for (const char* line :
             {"3 devices as one, by the clock of Stage Microphone", "Headphones is gone; the others go on",
              "no device: a timer keeps the time", "Studio Monitors alone", "Headphones is back after",
              "Headphones: volume 100% -> 60%, as remembered", "yes reported", "yes known", "yes sound"})
            expectContains(demo.output, line);
    expectContains(demo.output, "yes time");
    expectContains(demo.output, " restarts, ");
    EXPECT_EQ(demo.status, demo.output.find("\nNO ") == std::string::npos ? 0 : 1) << demo.output;
    EXPECT_FALSE(std::filesystem::exists(std::getenv("XDG_DATA_HOME"))) << "the user's settings";
    const std::string svg = contentOf(path("pictures/run.svg"));
    expectWholeSVG(svg);
    for (const char* text :
         {"volume 100% -&gt; 60%", "drift of the clocks", "level of the tone", "Stage Microphone"})
        expectContains(svg, text);

    ToolProcess lively({"demo", "--seconds", "60", "--picture", path("x.svg")}, true);
    ASSERT_TRUE(lively.waitFor("█"));
    lively.signal(SIGINT);
    EXPECT_EQ(lively.finish(), 1) << "incomplete";
    EXPECT_GT(lively.output().rfind("\x1B[?25h"), lively.output().rfind("\x1B[?25l")) << "the cursor";
}

TEST_F(DxrCommand, writesItsManualAndCompletesItself)
{
    const ToolResult pages =
        run("dxr manual man; for page in man/*.1; do groff -man -Tutf8 -ww $page; done 2>&1 > pages; "
            "ls man | wc -l; grep -c 'the default output if not given' pages; "
            "grep -qF -- '\\-\\-seconds' man/dxr-play.1 || echo hyphens");
    EXPECT_GT(std::stoi(pages.output), 15) << pages.output << pages.errors;
    EXPECT_EQ(linesOf(pages.output).size(), 2U) << "no warning: " << pages.output;
    const std::string complete =
        "dxr() { d \"$@\"; }; eval \"$(d completion bash)\"; _dxr; echo ${COMPREPLY[@]}";
    expectRows({
        {"a command", "COMP_WORDS=(dxr pl) COMP_CWORD=1; " + complete, 0, "play plot\n"},
        {"an option", "COMP_WORDS=(dxr play --dow) COMP_CWORD=2; " + complete, 0, "--downmix\n"},
        {"a device of an option", "COMP_WORDS=(dxr play --out sim-s) COMP_CWORD=3; " + complete, 0,
         "sim-speakers sim-surround\n"},
        {"fish", "d completion fish; d completion words 'dxr plot'", 0, "response\t"},
        {"zsh", "d completion zsh", 0, "#compdef dxr\n"},
    });
}

TEST_F(DxrCommand, controlsNoTerminalThatCannotBeControlled)
{
    EXPECT_EQ(run("TERM=dumb script -qc '" DXR_TOOL " list --simulated' log").output.find("\x1B"),
              std::string::npos);
}

/// Whether the terminal echoes input and delivers it by lines, as a shell leaves it.
bool isCooked(const ToolProcess& tool)
{
    termios modes{};
    EXPECT_EQ(tcgetattr(tool.terminal(), &modes), 0);
    return (modes.c_lflag & (ECHO | ICANON)) == (ECHO | ICANON);
}

void expectRestored(const ToolProcess& tool)
{
    EXPECT_TRUE(isCooked(tool));
    const std::string& output = tool.output();
    for (const auto& [restored, changed] :
         {std::pair("\x1B[?1049l", "\x1B[?1049h"), {"\x1B[?25h", "\x1B[?25l"}, {"\x1B[?7h", "\x1B[?7l"}})
        EXPECT_GT(output.rfind(restored), output.rfind(changed)) << restored;
}

TEST_F(DxrCommand, monitorsOnTheWholeTerminalAndRestoresIt)
{
    ToolProcess monitor({"monitor", "--simulated"}, true);
    const auto press = [&](std::string_view keys) {
        EXPECT_EQ(write(monitor.terminal(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    };
    for (const char* text :
         {"\x1B[H\x1B[1mdxr monitor", "USB Microphone", "-12.0 dB", "connected     Wireless Headphones",
          "default       output: Wireless Headphones", "out  Wireless Headphones"})
        ASSERT_TRUE(monitor.waitFor(text)) << text << monitor.output();
    EXPECT_FALSE(isCooked(monitor));
    const winsize size{12, 40, 0, 0};
    ioctl(monitor.terminal(), TIOCSWINSZ, &size);
    ASSERT_TRUE(monitor.waitFor("q quits   l plays the inputs on the ou…")) << monitor.output();
    press("l");
    ASSERT_TRUE(monitor.waitFor("l silences"));
    press("\x1A");
    ASSERT_TRUE(monitor.waitForStop());
    ASSERT_TRUE(monitor.waitFor("\x1B[?1049l"));
    EXPECT_TRUE(isCooked(monitor)) << "for the shell";
    monitor.signal(SIGCONT);
    ASSERT_TRUE(monitor.waitFor("\x1B[?1049l\x1B[?1049h")) << "the whole terminal again";
    EXPECT_FALSE(isCooked(monitor));
    press("xyz\x1B[Aq");
    EXPECT_EQ(monitor.finish(), 0);
    expectRestored(monitor);

    for (const int signal : {SIGTERM, SIGSEGV}) {
        ToolProcess ended({"monitor", "--simulated", "--in", "sim-usb-mic", "--out", "sim-surround:1,2"},
                          true);
        ASSERT_TRUE(ended.waitFor("q quits")) << signal;
        EXPECT_EQ(ended.output().find("Service"), std::string::npos) << "a hidden device";
        ended.signal(signal);
        EXPECT_EQ(ended.finish(), signal == SIGSEGV ? 128 + signal : 0);
        expectRestored(ended);
    }
    ToolProcess unknown({"monitor", "--simulated", "--in", "nobody"}, true);
    EXPECT_EQ(unknown.finish(), 1);
    EXPECT_EQ(unknown.output().find("\x1B[?1049h"), std::string::npos) << "an error stays readable";
}

TEST_F(DxrCommand, plotsTheSamplerAndHowClocksAreFollowed)
{
    const ToolResult response = run("dxr plot response --from 48000 --to 44100 r.svg");
    double hertz = 0, gain = 0, alias = 0, noise = 0;
    const std::vector<std::string> lines = linesOf(response.output);
    ASSERT_EQ(lines.size(), 6U) << response.output << response.errors;
    ASSERT_EQ(std::sscanf(lines[2].c_str(), "%lf Hz %lf dB %lf dB %lf dB", &hertz, &gain, &alias, &noise), 4);
    EXPECT_NEAR(hertz, 1000, 50);
    EXPECT_NEAR(gain, 0, 0.05);
    EXPECT_NEAR(noise, 71.5, 3);
    EXPECT_LT(alias, -90);
    expectContains(run("dxr plot drift --ppm 100 --seconds 60 d.svg").output,
                   "0 frames lost, 0 resynchronisations");
    expectWholeSVG(contentOf(path("r.svg")));
    expectWholeSVG(contentOf(path("d.svg")));
}

} // namespace
