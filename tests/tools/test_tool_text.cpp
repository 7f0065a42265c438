#include "DemoClaim.h"
#include "DemoPicture.h"
#include "DisplayText.h"
#include "ListCommand.h"
#include "MonitorView.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <functional>

namespace {

class ToolText : public testing::Test {
protected:
    ToolText() { std::setlocale(LC_CTYPE, "C.UTF-8"); }
};

TEST_F(ToolText, cutsTextToTheColumnsItTakes)
{
    struct {
        const char* why;
        std::string text;
        size_t width;
        std::string cut;
    } const rows[] = {
        {"fits", "abc", 3, "abc"},
        {"one too many", "abcd", 3, "ab…"},
        {"wide letters take two columns", "日本語", 6, "日本語"},
        {"half a wide letter is none", "日本語", 4, "日…"},
        {"combining marks take none", "e\u0301e\u0301", 2, "e\u0301e\u0301"},
        {"marks stay with their letter", "e\u0301e\u0301e\u0301", 2, "e\u0301…"},
        {"no room but for the sign", "abc", 1, "…"},
        {"no room", "abc", 0, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(clipToWidth(row.text, row.width), row.cut) << row.why;
        EXPECT_LE(displayWidth(clipToWidth(row.text, row.width)), row.width) << row.why;
    }
    std::string pile = "e";
    for (int i = 0; i < 30000; ++i)
        pile += "\u0301";
    EXPECT_LT(singleLine(pile).size(), 32U);
    EXPECT_EQ(singleLine("a\nb\tc\x1B\x80"), "a\\x0Ab\\x09c\\x1B\\x80");
    EXPECT_EQ(foldCase("MÜsik"), "müsik");
}

TEST_F(ToolText, laysTheTableOutForEveryNameAndWidth)
{
    std::vector<DeviceReport> devices(5);
    devices[0].name = std::string(65536, 'x');
    devices[0].uid = std::string(65536, 'u');
    devices[1].name = "\x1B[2J\nnew line\xFF";
    devices[2].name = "スピーカー (内蔵オーディオ アナログステレオ出力デバイス)";
    devices[2].uid = "alsa_output.pci-0000_00_1f.3.analog-stereo-with-a-very-long-unique-name";
    devices[3].directions[1].channelCount = 1024;
    devices[4].deviceID = 4000;
    const Terminal terminal;
    for (const size_t width : {20U, 40U, 80U, 132U, 100000U}) {
        const std::vector<std::string> lines = deviceTable(devices, width, terminal);
        EXPECT_GE(lines.size(), devices.size() + 1);
        for (const std::string& line : lines) {
            EXPECT_LE(displayWidth(line), std::max<size_t>(width, 24)) << line.substr(0, 200);
            EXPECT_EQ(line.find_first_of("\x1B\n\xFF"), std::string::npos);
        }
        EXPECT_NE(lines.front().find("NAME"), std::string::npos);
    }
}

TEST_F(ToolText, breaksTextAtSpaces)
{
    const std::vector<std::string> lines = wrapped("one two  three fourteen-letters x", 8);
    EXPECT_EQ(lines, (std::vector<std::string>{"one two", "three", "fourteen", "-letters", "x"}));
    EXPECT_TRUE(wrapped("", 8).empty());
}

/// A run of 12 s as it should be: the headphones are away from second 3 to 5, all devices from 7 to 9.
DemoHistory goodRun()
{
    using enum DemoStage::Device;
    constexpr double cycle = 512 / 48000.0;
    DemoHistory history;
    history.seconds = 12.0;
    history.contexts = {
        {0, 3, Microphone}, {3, 2, Microphone}, {5, 3, Microphone}, {7, 0, Microphone}, {9, 3, Microphone}};
    for (const DemoStage::Device device : {Microphone, Monitors})
        history.presences.insert(history.presences.end(), {{device, 0, 7}, {device, 9, -1}});
    history.presences.insert(history.presences.end(),
                             {{Headphones, 0, 3}, {Headphones, 5, 7}, {Headphones, 9, -1}});
    for (double seconds = 0.0; seconds < 12.0; seconds += cycle)
        history.cycles.push_back({seconds, seconds});
    for (double seconds = 0.05; seconds < 12.0; seconds += 0.1)
        for (const DemoStage::Device output : DemoStage::outputs)
            if (history.isThere(output, seconds))
                history.tones.push_back(
                    {seconds, output, {100, 100}, output == Monitors ? 0.5 : 0.5 * 0.216, 5});
    history.notes.push_back({1.0, Monitors, "<script>&\"\x1B"});
    return history;
}

TEST_F(ToolText, findsWhateverIsNotTrueOfADemo)
{
    struct {
        const char* why;
        std::function<void(DemoHistory&)> spoil;
        bool isTimeGood, isSoundGood;
    } const rows[] = {
        {"nothing", [](DemoHistory&) {}, true, true},
        {"a cycle comes twice",
         [](auto& run) { run.cycles[50].sampleSeconds = run.cycles[49].sampleSeconds; }, false, true},
        {"time runs ahead", [](auto& run) { run.cycles.back().sampleSeconds += 0.1; }, false, true},
        {"a pause, and time that waits for it",
         [](auto& run) {
             for (size_t i = 200; i < run.cycles.size(); ++i)
                 run.cycles[i].seconds += 0.05;
         },
         true, true},
        {"the timer loses time",
         [](auto& run) {
             for (DemoHistory::Cycle& each : run.cycles)
                 each.sampleSeconds -= 0.1 * std::clamp(each.seconds - 7.0, 0.0, 1.0);
         },
         false, true},
        {"no cycle", [](auto& run) { run.cycles.clear(); }, false, true},
        {"an output is silent",
         [](auto& run) {
             std::erase_if(run.tones, [](const auto& tone) { return tone.device == DemoStage::Headphones; });
         },
         true, false},
        {"one stays silent when it is back",
         [](auto& run) { std::erase_if(run.tones, [](const auto& tone) { return tone.seconds > 9.0; }); },
         true, false},
        {"noise",
         [](auto& run) {
             for (DemoHistory::Tone& tone : run.tones)
                 tone.quality[1] = 70.0;
         },
         true, false},
        {"the volume is not what was remembered",
         [](auto& run) {
             for (DemoHistory::Tone& tone : run.tones)
                 tone.level = tone.seconds > 9.0 ? 0.5 : tone.level;
         },
         true, false},
        {"out of tune", [](auto& run) { run.tones[40].pitchError = -1000.0; }, true, false},
        {"a lost cycle now and then",
         [](auto& run) {
             run.tones[40].quality = {5, 5};
         },
         true, true},
    };
    for (const auto& row : rows) {
        DemoHistory run = goodRun();
        row.spoil(run);
        EXPECT_EQ(DemoClaim::ofTime(run).isTrue, row.isTimeGood) << row.why;
        EXPECT_EQ(DemoClaim::ofSound(run, 0.6).isTrue, row.isSoundGood) << row.why;
    }
}

TEST_F(ToolText, fitsTheMonitorIntoEveryTerminal)
{
    MonitorState state;
    state.context = "2 devices as one";
    state.sampleRate = 48000;
    state.frameCount = 512;
    state.usedSeconds = 0.02;
    state.cycleSeconds = 0.01;
    state.devices.resize(3);
    state.devices[0] = {"in", "\x1B[2Jhostile\n", true, "runs", 44100, "+12.3 ppm", 400, 2.0F};
    state.devices[1].name = std::string(4096, 'x');
    state.devices[2] = {"out", "スピーカー (内蔵オーディオ アナログステレオ)", false, "gone", 0, "", 0, 0.0F};
    state.others = {{"other\x07", 1, 2, 48000}};
    state.news.assign(50, "\x1B]0;news\x07");
    state.keys = "q quits";
    const Terminal terminal; // no colours: it is none
    for (size_t columns = 0; columns < 200; columns += columns < 20 ? 1 : 7) {
        for (size_t rows = 1; rows < 60; rows += rows < 12 ? 1 : 7) {
            const std::vector<std::string> lines = monitorLines(state, columns, rows, terminal);
            EXPECT_EQ(lines.size(), rows);
            for (const std::string& line : lines) {
                EXPECT_LE(displayWidth(line), columns) << line.substr(0, 200);
                EXPECT_EQ(line.find_first_of("\x1B\n\x07"), std::string::npos);
            }
        }
    }
    const std::vector<std::string> lines = monitorLines(state, 79, 24, terminal);
    EXPECT_NE(lines[1].find("20.00 of 10.00 ms"), std::string::npos) << lines[1];
    EXPECT_TRUE(lines.back().starts_with("q quits"));
    EXPECT_EQ(monitorLines({}, 79, 24, terminal).size(), 24U);
}

TEST_F(ToolText, drawsAPictureThatNoTextCanBreak)
{
    const std::string svg = demoPicture(goodRun(), "a & b");
    EXPECT_NE(svg.find("&lt;script&gt;&amp;&quot;\\x1B"), std::string::npos);
    EXPECT_NE(svg.find("a &amp; b"), std::string::npos);
    EXPECT_EQ(svg.find("nan"), std::string::npos);
    EXPECT_TRUE(demoPicture({}, "").ends_with("</svg>\n")); // nothing at all
}

} // namespace
