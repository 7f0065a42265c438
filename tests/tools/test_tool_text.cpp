#include "DisplayText.h"
#include "ListCommand.h"
#include "RunPicture.h"

#include <gtest/gtest.h>

#include <clocale>

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

TEST_F(ToolText, drawsAPictureThatNoNameCanBreak)
{
    RunPicture picture;
    picture.deviceCame(0.0, "u", "<script>&\"\x1B");
    picture.note(0.5, "u", "a & b");
    picture.note(0.5, "unknown", "nothing");
    picture.deviceGone(0.7, "u");
    picture.addLevels(0.1, {0.0F, 1.0F}, {2.0F, 0.1F});
    const std::string svg = picture.svg(1.0, "t", "r");
    EXPECT_NE(svg.find("&lt;script&gt;&amp;&quot;\\x1B"), std::string::npos);
    EXPECT_NE(svg.find("a &amp; b"), std::string::npos);
    EXPECT_EQ(svg.find("nan"), std::string::npos);
    EXPECT_TRUE(RunPicture().svg(0.0, "", "").ends_with("</svg>\n")); // nothing at all
}

} // namespace
