#include "CapturedLog.h"
#include "LogSink.h"

#include <gtest/gtest.h>

namespace {

TEST(PrintableText, letsNoControlByteThrough)
{
    struct {
        const char* why;
        std::string_view in;
        std::string_view out;
    } const rows[] = {
        {"plain text stays", "Maus \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x8E\xA7",
         "Maus \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x8E\xA7"},
        {"escape sequence", "a\x1B[31mb", "a\\x1B[31mb"},
        {"newline and tab stay", "a\tb\n", "a\tb\n"},
        {"eight-bit control characters",
         "a\xC2\x9B"
         "b",
         "a\\xC2\\x9B"
         "b"},
        {"bare continuation byte", "a\x80", "a\\x80"},
        {"overlong slash", "\xC0\xAF", "\\xC0\\xAF"},
        {"surrogate", "\xED\xA0\x80", "\\xED\\xA0\\x80"},
        {"cut short at the end", "x\xE2\x82", "x\\xE2\\x82"},
        {"right-to-left override",
         "a\xE2\x80\xAE"
         "b",
         "a\\xE2\\x80\\xAE"
         "b"},
        {"a null byte", std::string_view("a\0b", 3), "a\\x00b"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(dxr::printableText(row.in), row.out) << row.why;
}

TEST(LogSink, writesToWhoeverIsRegistered)
{
    const CapturedLog log;
    dxr::LogSink::log("one");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"one"});
}

} // namespace
