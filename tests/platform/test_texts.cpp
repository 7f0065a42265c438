#include "LogSink.h"
#include "Utf8.h"

#include <gtest/gtest.h>

namespace {

using dxr::printableText;

TEST(Texts, areCleanedForPrintingAndCutAtWholeCharacters)
{
    EXPECT_EQ(printableText("Maus ä € 🎧\t\n"), "Maus ä € 🎧\t\n");
    EXPECT_EQ(printableText("a\x1B[31mb"), "a\\x1B[31mb") << "an escape sequence";
    EXPECT_EQ(printableText("a\xC2\x9B!"), "a\\xC2\\x9B!") << "an eight-bit control character";
    EXPECT_EQ(printableText("a\x80"), "a\\x80") << "a bare continuation byte";
    EXPECT_EQ(printableText("\xC0\xAF"), "\\xC0\\xAF") << "an overlong slash";
    EXPECT_EQ(printableText("\xF5\x80"), "\\xF5\\x80") << "beyond the last character";
    EXPECT_EQ(printableText("\xED\xA0\x80"), "\\xED\\xA0\\x80") << "a surrogate";
    EXPECT_EQ(printableText("x\xE2\x82"), "x\\xE2\\x82") << "cut short at the end";
    EXPECT_EQ(printableText("a\xE2\x80\xAE!"), "a\\xE2\\x80\\xAE!") << "right-to-left override";
    EXPECT_EQ(printableText(std::string_view("a\0b", 3)), "a\\x00b");

    EXPECT_EQ(dxr::utf8Prefix("\xFF\x80ä", 4), "\xFF\x80ä") << "bytes that are not UTF-8 count one by one";
    EXPECT_EQ(dxr::utf8Prefix("\xFF\x80ä", 3), "\xFF\x80");
    const std::string_view ends = "\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
    EXPECT_EQ(dxr::utf8Replaced(ends), ends) << "the first and the last character of each length";
    EXPECT_EQ(dxr::utf8Replaced("a\xFF\xFEäx\xC3"), "a��äx�");
}

} // namespace
