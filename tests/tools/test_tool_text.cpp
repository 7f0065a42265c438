#include "MonitorView.h"
#include "Text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>

namespace {

class ToolText : public testing::Test {
protected:
    ToolText() { std::setlocale(LC_CTYPE, "C.UTF-8"); }

    /// Expects lines that fit and cannot control the terminal.
    static void expectHarmless(const std::vector<std::string>& lines, size_t columns)
    {
        for (const std::string& line : lines) {
            EXPECT_LE(displayWidth(line), columns) << line.substr(0, 200);
            EXPECT_EQ(line.find_first_of("\x1B\n\x07\xFF"), std::string::npos);
        }
    }

    const Terminal terminal; // no colours, because output is not a terminal
};

TEST_F(ToolText, cutsTextToTheColumnsItTakes)
{
    const struct {
        const char* why;
        std::string text;
        size_t width;
        std::string cut;
    } rows[] = {
        {"one too many", "abcd", 3, "ab…"},
        {"wide letters take two columns", "日本語", 6, "日本語"},
        {"half a wide letter does not fit", "日本語", 4, "日…"},
        {"combining marks take none", "e\u0301e\u0301", 2, "e\u0301e\u0301"},
        {"marks stay with their letter", "e\u0301e\u0301e\u0301", 2, "e\u0301…"},
        {"room for the ellipsis only", "abc", 1, "…"},
        {"no room", "abc", 0, ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(clipToWidth(row.text, row.width), row.cut) << row.why;
    std::string pile = "e";
    for (int i = 0; i < 30000; ++i)
        pile += "\u0301";
    EXPECT_LT(singleLine(pile).size(), 32U);
    EXPECT_EQ(formatSeconds(59.94) + " " + formatSeconds(125.96), "59.9 s 2:06.0");
    EXPECT_EQ(singleLine("a\nb\tc\x1B\x80"), "a\\x0Ab\\x09c\\x1B\\x80");
    EXPECT_EQ(foldCase("MÜsik"), "müsik");
    EXPECT_EQ(wrapped("one two  three fourteen-letters x", 8),
              (std::vector<std::string>{"one two", "three", "fourteen", "-letters", "x"}));
}

TEST_F(ToolText, laysTheTableOutForEveryNameAndWidth)
{
    std::vector<DeviceReport> devices(3);
    devices[0].name = std::string(65536, 'x');
    devices[0].uid = std::string(65536, 'u');
    devices[0].deviceID = 4000;
    devices[1].name = "\x1B[2J\nnew line\xFF";
    devices[1].directions[1].channelCount = 1024;
    devices[2].name = "スピーカー (内蔵オーディオ アナログステレオ出力デバイス)";
    for (const size_t width : {20U, 40U, 80U, 100000U}) {
        const std::vector<std::string> lines = deviceTable(devices, width, terminal);
        EXPECT_GE(lines.size(), devices.size() + 1);
        expectHarmless(lines, std::max<size_t>(width, 24));
    }
    EXPECT_EQ(deviceTable(devices, 40, terminal)[5], "スピーカー (内…    -     -     -       -");
}

TEST_F(ToolText, fitsTheMonitorIntoEveryTerminal)
{
    MonitorState state;
    state.sampleRate = 48000;
    state.frameCount = 512;
    state.usedSeconds = 0.02;
    state.cycleSeconds = 0.01;
    state.devices = {
        {"in", "\x1B[2Jhostile\n", true, 44100, "the same clock", 400, 2.0F},
        {"in", std::string(4096, 'x'), true, 0, "", 0, 0.0F},
        {"out", "スピーカー (内蔵オーディオ アナログステレオ)", false, 0, "", 0, 0.0F},
    };
    state.others.resize(1);
    state.others[0].name = "other\x07";
    state.messages.assign(50, "\x1B]0;news\x07");
    for (size_t columns = 0; columns < 200; columns += columns < 20 ? 1 : 7)
        for (size_t rows = 1; rows < 60; rows += rows < 12 ? 1 : 7) {
            const std::vector<std::string> lines = monitorLines(state, columns, rows, terminal);
            EXPECT_EQ(lines.size(), rows);
            expectHarmless(lines, columns);
        }
    const std::vector<std::string> lines = monitorLines(state, 100, 24, terminal);
    EXPECT_NE(lines[1].find("20.00 of 10.00 ms"), std::string::npos) << lines[1];
    EXPECT_NE(lines[6].find("44.1 kHz  the same clock   400"), std::string::npos) << lines[6];
    EXPECT_TRUE(lines.back().starts_with("q quits"));
    EXPECT_NE(monitorLines(state, 60, 24, terminal)[6].find("6.0 dB"), std::string::npos)
        << "a narrow terminal shows the level";
    EXPECT_EQ(monitorLines({}, 79, 24, terminal).size(), 24U);
}

} // namespace
