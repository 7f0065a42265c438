#include "LogSink.h"
#include "Utf8.h"

#include <gtest/gtest.h>

namespace {

TEST(Texts, areCleanedForPrintingAndCutAtWholeCharacters)
{
    struct {
        const char* why;
        std::string_view text;
        std::string_view printable;
    } const rows[] = {
        {"plain text stays", "Maus ä € 🎧", "Maus ä € 🎧"},
        {"escape sequence", "a\x1B[31mb", "a\\x1B[31mb"},
        {"newline and tab stay", "a\tb\n", "a\tb\n"},
        {"eight-bit control character", "a\xC2\x9B!", "a\\xC2\\x9B!"},
        {"bare continuation byte", "a\x80", "a\\x80"},
        {"overlong slash", "\xC0\xAF", "\\xC0\\xAF"},
        {"beyond the last character", "\xF5\x80", "\\xF5\\x80"},
        {"surrogate", "\xED\xA0\x80", "\\xED\\xA0\\x80"},
        {"cut short at the end", "x\xE2\x82", "x\\xE2\\x82"},
        {"right-to-left override", "a\xE2\x80\xAE!", "a\\xE2\\x80\\xAE!"},
        {"a null byte", std::string_view("a\0b", 3), "a\\x00b"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(dxr::printableText(row.text), row.printable) << row.why;

    EXPECT_EQ(dxr::utf8Prefix("vierzehn bytesä", 15), "vierzehn bytes");
    EXPECT_EQ(dxr::utf8Prefix("\xFF\x80ä", 4), "\xFF\x80ä") << "bytes that are not UTF-8 count one by one";
    EXPECT_EQ(dxr::utf8Prefix("\xFF\x80ä", 3), "\xFF\x80");
    EXPECT_EQ(dxr::utf8Replaced("a\xFF\xFEäx\xC3"), "a��äx�");
}

} // namespace
