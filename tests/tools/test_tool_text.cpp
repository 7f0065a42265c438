#include "DeviceTable.h"
#include "MonitorView.h"
#include "Text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>

namespace {

class ToolText : public testing::Test {
protected:
    ToolText() { std::setlocale(LC_CTYPE, "C.UTF-8"); }

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
        {"fits", "abc", 3, "abc"},
        {"one too many", "abcd", 3, "ab…"},
        {"wide letters take two columns", "日本語", 6, "日本語"},
        {"half a wide letter does not fit", "日本語", 4, "日…"},
        {"nor with nothing before it", "日本語", 2, "…"},
        {"combining marks take none", "e\u0301e\u0301", 2, "e\u0301e\u0301"},
        {"marks stay with their letter", "e\u0301e\u0301e\u0301", 2, "e\u0301…"},
        {"room for the ellipsis only", "abc", 1, "…"},
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
    EXPECT_EQ(wrapped("one two  three fourteen-letters x", 8),
              (std::vector<std::string>{"one two", "three", "fourteen", "-letters", "x"}));
    EXPECT_EQ(labelled("label ", 6, "one two three four five", 0),
              (std::vector<std::string>{"label one two three four", "      five"}));
}

TEST_F(ToolText, formatsNumbers)
{
    EXPECT_EQ(formatCount(1'234'567, "frame"), "1,234,567 frames");
    EXPECT_EQ(formatCount(1, "frame"), "1 frame");
    EXPECT_EQ(formatNumber(100), "100");
    EXPECT_EQ(formatSeconds(59.94), "59.9 s");
    EXPECT_EQ(formatSeconds(125.96), "2:06.0");
    EXPECT_EQ(formatRate(44100) + formatRate(1000) + formatRate(999) + formatRate(0), "44.1 kHz1 kHz999 Hz-");
    EXPECT_EQ(formatUTC(std::chrono::system_clock::time_point(std::chrono::milliseconds(86'400'007))),
              "1970-01-02T00:00:00.007Z");
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
    for (const size_t width : {20U, 40U, 80U, 132U, 100000U}) {
        const std::vector<std::string> lines = deviceTable(devices, width, terminal);
        EXPECT_GE(lines.size(), devices.size() + 1);
        EXPECT_NE(lines.front().find("NAME"), std::string::npos);
        for (const std::string& line : lines) {
            EXPECT_LE(displayWidth(line), std::max<size_t>(width, 24)) << line.substr(0, 200);
            EXPECT_EQ(line.find_first_of("\x1B\n\xFF"), std::string::npos);
        }
    }
    EXPECT_EQ(deviceTable(devices, 40, terminal)[5], "スピーカー (内…    -     -     -       -");
}

TEST_F(ToolText, fitsTheMonitorIntoEveryTerminal)
{
    MonitorState state;
    state.context = "2 devices as one";
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
            for (const std::string& line : lines) {
                EXPECT_LE(displayWidth(line), columns) << line.substr(0, 200);
                EXPECT_EQ(line.find_first_of("\x1B\n\x07"), std::string::npos);
            }
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
