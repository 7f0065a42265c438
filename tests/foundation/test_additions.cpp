#include "CXException.h"
#include "CXFourCharCode.h"
#include "CXJSON.h"
#include "CXPlistAdditions.h"
#include "CXStringAdditions.h"
#include "CXThreadAdditions.h"
#include "CXTimeBase.h"
#include "CXURLAdditions.h"
#include "CXValue.h"
#include "_multiplyRatio.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <pthread.h>

namespace {

TEST(PlistArrays, mapMatchSelectAndAdd)
{
    const CXPlist numbers = {1, 2, 3, 4};
    const auto halved = [](const CXPlist& n) {
        return n.get<int>() % 2 == 0 ? CXPlist(n.get<int>() / 2) : CXPlist();
    };
    const auto isAbove2 = [](const CXPlist& n) { return n > 2; };
    EXPECT_THROW(vt_map(numbers, halved), CXException);
    EXPECT_EQ(vt_map(CXPlist{2, 4}, halved), (CXPlist{1, 2}));
    EXPECT_EQ(vt_map(nullptr, halved), CXPlist::array()) << "no array is an empty one";
    EXPECT_EQ(vt_compact_map(numbers, halved), (CXPlist{1, 2}));
    EXPECT_EQ(vt_match(numbers, isAbove2), 3);
    EXPECT_EQ(vt_match(CXPlist{1, 2}, isAbove2), nullptr);
    EXPECT_EQ(vt_select(numbers, isAbove2), (CXPlist{3, 4}));
    const auto isB = [](const std::string& key, auto&) { return key == "b"; };
    EXPECT_EQ(vt_select(CXPlist{{"a", 1}, {"b", 2}}, isB), (CXPlist{{"b", 2}}));
    CXPlist list = CXPlist::array();
    safeAddObject(list, nullptr);
    safeAddObject(list, 5);
    EXPECT_EQ(list, CXPlist::array({5}));
}

TEST(PlistDictionaries, convertWhatTheyHold)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const auto converted = [](const CXPlist& value) {
        const CXPlist values = {{"k", value}};
        return std::tuple(safeIntegerForKey(values, "k"), safeDoubleForKey(values, "k"),
                          safeBoolForKey(values, "k"));
    };
    EXPECT_EQ(converted(true), std::tuple(1, 1.0, true));
    EXPECT_EQ(converted(" 12.75 Hz"), std::tuple(12, 12.75, true));
    EXPECT_EQ(converted(1e300), std::tuple(INT32_MAX, 1e300, true));
    EXPECT_EQ(converted(4294967297), std::tuple(1, 4294967297.0, true));
    EXPECT_EQ(converted(-3.99), std::tuple(-3, -3.99, true));
    EXPECT_EQ(converted({1}), std::tuple(0, 0.0, false));
    EXPECT_EQ(converted("nan"), std::tuple(0, 0.0, false));
    EXPECT_EQ(converted("1e999"), std::tuple(INT32_MAX, infinity, true));
    EXPECT_EQ(converted(nullptr), std::tuple(0, 0.0, false));
    EXPECT_EQ(converted("true"), std::tuple(0, 0.0, true));
    EXPECT_EQ(converted("00"), std::tuple(0, 0.0, false));
    EXPECT_EQ(converted("\xFF\xFE 1"), std::tuple(0, 0.0, false));
    EXPECT_EQ(converted("-1e-999"), std::tuple(0, 0.0, false));

    const CXPlist values = {{"", 1},           {"yes", true},
                            {"text", "a"},     {"list", {640, 480}},
                            {"null", nullptr}, {"size", "{0.1, 16777217}"}};
    EXPECT_EQ(safeIntegerForKey(values, "absent"), 0);
    EXPECT_EQ(vtIntForKey(values, "null", 7), 7);
    EXPECT_EQ(vtIntForKey(CXPlist{{"k", std::nan("")}}, "k", 7), 0);
    EXPECT_EQ(vtFloatForKey(values, "list", 7.0F), 0.0F) << "a present value of any type is converted";
    EXPECT_TRUE(vtBoolForKey(values, "absent", true));
    EXPECT_EQ(vtSizeForKey(values, "list", {1, 1}), (CXSize{640, 480}));
    EXPECT_EQ(vtSizeForKey(values, "size", {1, 1}), (CXSize{0.1, 16777217}));
    EXPECT_EQ(vtSizeForKey(values, "absent", {1, 1}), (CXSize{1, 1}));
    EXPECT_EQ(vtObjectForKey(values, "yes", CXPlistKind::Number), true) << "a boolean is a number";
    EXPECT_EQ(vtObjectForKey(values, "text", CXPlistKind::Number), nullptr);
    EXPECT_EQ(safeObjectForKey(values, "absent", "default"), "default");
    EXPECT_EQ(safeObjectForKey(CXPlist{1}, "absent"), nullptr);

    CXPlist set = CXPlist::object();
    vt_safeSetObject(set, 1, std::nullopt);
    vt_safeSetObject(set, nullptr, "a");
    vt_safeSetObject(set, 1, "");
    safeSetBool(set, false, "off");
    EXPECT_EQ(set, (CXPlist{{"", 1}, {"off", false}}));
}

TEST(JSON, isReadWithinLimits)
{
    const auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    EXPECT_FALSE(CXPlistWithJSON("{"));
    EXPECT_FALSE(CXPlistWithJSON("{}{}")) << "something behind it";
    EXPECT_FALSE(CXPlistWithJSON("\"\xFF\"")) << "no UTF-8";
    EXPECT_FALSE(CXPlistWithJSON(R"("\ud800")")) << "half a surrogate pair";
    EXPECT_FALSE(CXPlistWithJSON("1e999")) << "a number out of range";
    EXPECT_TRUE(CXPlistWithJSON("18446744073709551615")) << "the largest number";
    EXPECT_TRUE(CXPlistWithJSON(nested(512))) << "as deep as is read";
    EXPECT_FALSE(CXPlistWithJSON(nested(513)));
    EXPECT_TRUE(CXPlistWithJSON(R"("\")" + std::string(600, '[') + '"')) << "not deep: within a string";
    EXPECT_FALSE(CXPlistWithJSON(std::string(1'000'000, '{'))) << "very deep";
    EXPECT_FALSE(CXPlistWithJSON('"' + std::string(100'000'000, 'a') + '"')) << "too long";
    EXPECT_TRUE(CXPlistFitsJSON(CXPlist::parse(nested(512))));
    EXPECT_FALSE(CXPlistFitsJSON(CXPlist::parse(nested(513))));
}

TEST(PlistEquality, toleratesSmallDifferencesAndOneKey)
{
    const CXPlist deep = {{"a", {{{"t", 1}, {"x", 0.1}}}}};
    const auto isEqual = [](const CXPlist& value, const CXPlist& other) {
        return vtIsEqual(value, other, "t");
    };
    EXPECT_TRUE(isEqual({{"a", 1}, {"b", 2}, {"t", 5}}, {{"a", 1}, {"b", 2}})) << "the key on one side";
    EXPECT_FALSE(isEqual({{"a", 1}, {"t", 5}}, {{"a", 1}, {"b", 2}})) << "another key instead of it";
    EXPECT_TRUE(isEqual(deep, {{"a", {{{"x", 0.1004}}}}})) << "ignored at every depth";
    EXPECT_TRUE(isEqual(0.1, 0.1004)) << "close enough";
    EXPECT_FALSE(isEqual(0.1, 0.1006)) << "too far";
    EXPECT_TRUE(isEqual(true, 1)) << "a boolean is a number";
    EXPECT_FALSE(isEqual(CXPlist::array(), CXPlist::object()));
    EXPECT_FALSE(isEqual({1, 2}, {1}));
    EXPECT_TRUE(isEqual(1.5, "1.5001")) << "a number reads a string";
    EXPECT_FALSE(isEqual("1.5", 1.5)) << "a string does not read a number";
    EXPECT_TRUE(isEqual({{"k", "1.5"}}, {{"k", 1.5}})) << "the other side's entry is the one asked";
    EXPECT_FALSE(isEqual(1, {1})) << "nor does a number read a list";
    EXPECT_TRUE(isEqual(std::nan(""), std::nan("")));
    EXPECT_FALSE(isEqual(UINT64_MAX, -1)) << "the same bits with and without a sign";
    EXPECT_TRUE(isEqual(uint64_t{7}, int64_t{7})) << "with and without a sign";
    EXPECT_FALSE(vtIsEqual(CXPlist{{"t", 1}}, CXPlist::object())) << "no key is ignored unless asked";

    const auto valueOf = [](const CXPlist& plist) { return CXValue::initWithPlist(plist); };
    EXPECT_FALSE(valueOf({{"k", {UINT64_MAX}}})->isEqual(valueOf({{"k", {-1}}}).get()));
    EXPECT_TRUE(valueOf({{"k", {uint64_t{0}}}})->isEqual(valueOf({{"k", {0}}}).get()));
    EXPECT_EQ(valueOf(uint64_t{7})->hash(), valueOf(7)->hash());
}

TEST(Strings, areCutCleanedAndReplaced)
{
    EXPECT_EQ(stringByTrimmingWhitespace("\u00A0\t a b\u3000\r\n"), "a b");
    EXPECT_EQ(stringByTrimmingWhitespace(" \xFFx\xC3 "), "\xFFx\xC3") << "bytes that are not UTF-8 stay";
    EXPECT_EQ(stringByRemovingCharactersInSet("häuser-a", "aä-"), "huser");
    EXPECT_EQ(stringByReplacingQuotesWithSmartQuotes("\"a\" \""), "\u201Ca\u201D \u201C");
    EXPECT_TRUE(hasPrefixInArray("front left", {"back", 4, "front"}));
    std::string text = "aXXa";
    simpleReplace(text, "a", "aa");
    simpleReplace(text, "", "never");
    EXPECT_EQ(text, "aaXXaa");
    text = "%name %nameLong %n xy";
    simpleReplaceKeysWithValuesFrom(
        text, {{"%n", "c"}, {"%name", "a"}, {"%nameLong", "b"}, {"xy", "日"}, {"日", "d"}, {"", "never"}});
    EXPECT_EQ(text, "a b c d") << "the longest in characters first";

    const auto bytes = [](std::string_view data) { return std::as_bytes(std::span(data)); };
    EXPECT_EQ(stringWithUTF8Data(bytes("\xC3\xA4")), "ä");
    EXPECT_EQ(stringWithUTF8Data(bytes("\xE4")), std::nullopt);
    EXPECT_EQ(stringWithData(bytes("\xE4"), "ISO-8859-1"), "ä");
    EXPECT_EQ(stringWithData(bytes("\xE0"), "CP1255"), "א") << "held back for a point";
    EXPECT_EQ(stringWithData(bytes("\x82\x82\x82"), "TSCII")->size(), 36U);
    EXPECT_EQ(stringWithData(bytes("\xF4\x90\x80\x80"), "UTF-8"), std::nullopt);
    for (const char* const unknown : {"no such encoding", ""})
        EXPECT_EQ(stringWithData(bytes("a"), unknown), std::nullopt);
    const std::string uuid = uuidString();
    EXPECT_TRUE(uuid.size() == 36 && uuid[14] == '4' && std::string_view("89AB").find(uuid[19]) < 4) << uuid;
    EXPECT_NE(uuid, uuidString());

    EXPECT_EQ(stringWithFourCharCode(CXFourCharCode("dprt")), "dprt");
    EXPECT_EQ(stringWithFourCharCode(1), "00000001");
    char name[16];
    vt_setThreadName("fourteen bytesä");
    pthread_getname_np(pthread_self(), name, sizeof name);
    EXPECT_STREQ(name, "fourteen bytes");
}

TEST(ScanFloatArray, skipsSeparatorsAndStopsAtOtherText)
{
    constexpr float infinity = std::numeric_limits<float>::infinity();
    const std::string tinyTimes100 = "0." + std::string(60, '0') + "1e2";
    const std::string hugeBy100 = "1" + std::string(60, '0') + "e-2";
    using Floats = std::vector<float>;
    const auto scanned = [](std::string_view text, int32_t count) {
        Floats floats(4, -1.0F);
        const int32_t result = scanFloatArray(text, floats.data(), count);
        EXPECT_EQ(result, 4 - std::ranges::count(floats, -1.0F)) << text;
        std::erase(floats, -1.0F);
        return floats;
    };
    EXPECT_EQ(scanned("{1.5, 2, 3}", 3), (Floats{1.5F, 2, 3}));
    EXPECT_EQ(scanned("größe 𝐀: -2.5e1*.5", 2), (Floats{-25, 0.5F}));
    EXPECT_EQ(scanned("1e999 1e-999 2.", 3), (Floats{infinity, 0, 2}));
    EXPECT_EQ(scanned("1;2", 2), Floats{1});
    EXPECT_EQ(scanned("nan inf", 1), Floats());
    EXPECT_EQ(scanned("- 1", 1), Floats());
    EXPECT_EQ(scanned("٣ 1", 1), Floats());
    EXPECT_EQ(scanned("\xFF 1", 1), Floats());
    // Beyond a float's range while parsing; the exponent's sign alone does not decide on which side.
    EXPECT_EQ(scanned(tinyTimes100, 1), Floats{0});
    EXPECT_EQ(scanned(hugeBy100, 1), Floats{infinity});
    EXPECT_EQ(scanned("-0.1e40 1e-99999999999999999999 0.001e99999999999999999999", 3),
              (Floats{-infinity, 0, infinity}));
    EXPECT_EQ(scanFloatArray("1", nullptr, -4), -4);
}

TEST(TimeBase, scalesExactlyAndCutsTowardsZero)
{
    EXPECT_EQ(_multiplyRatio(UINT64_MAX - 1, 125, 125), UINT64_MAX - 1) << "equal terms are untouched";
    EXPECT_EQ(_multiplyRatio(5, 3, 1), 15U) << "a divisor of one";
    EXPECT_EQ(_multiplyRatio(2, 2, 3), 1U) << "cut, not rounded";
    EXPECT_EQ(_multiplyRatio(UINT64_MAX, 3, 125), 442721857769029238U) << "a product beyond 64 bits";
    EXPECT_EQ(_multiplyRatio(UINT64_MAX, 4, 2), UINT64_MAX - 1) << "only the low bits of too large a result";

    const CXRef<CXTimeBase> base = CXTimeBase::initWithRatio(125, 3); // a clock of 24 MHz
    EXPECT_EQ(base->nanosecondsFromAbsoluteTime(24'000'000), 1'000'000'000U);
    EXPECT_EQ(base->absoluteTimeFromNanoseconds(1'000'000'000), 24'000'000U);
    const CXRef<CXTimeBase> shared = CXTimeBase::sharedTimeBase();
    EXPECT_EQ(CXTimeBase::sharedTimeBase(), shared);
    const uint64_t before = shared->absoluteTime();
    EXPECT_GE(shared->nanoseconds(), shared->nanosecondsFromAbsoluteTime(before));
}

TEST(URLs, areCheckedAndExtended)
{
    EXPECT_EQ(safeFileURLWithPath("/no such/ä?#"), "file:///no%20such/%C3%A4%3F%23");
    EXPECT_EQ(safeFileURLWithPath("/tmp"), "file:///tmp/");
    EXPECT_EQ(safeFileURLWithPath(std::nullopt), std::nullopt);
    for (const char* good :
         {"http://user:x@host:80/a%20b?q=1&r#f", "../a;b", "mailto:x@y", "http://[::1]:8/"})
        EXPECT_EQ(safeURLWithString(good), good);
    for (const char* bad :
         {"", "a b", "h\xC3\xA4", "%G0", "%2", "a#b#c", "1a:b", "http://h:x/", "http://[::1", "http://[@h/"})
        EXPECT_EQ(safeURLWithString(bad), std::nullopt) << bad;
    EXPECT_EQ(vtURLWithURL("http://h/p?old=1#f", {{"a&b", "c=\xFF e"}, {"n", 1}, {"only", nullptr}}),
              "http://h/p?a%26b=c%3D%FF%20e&n=1&only&old=1#f");
    EXPECT_EQ(vtURLWithURL("http://h/p?#f", {{"a", 1}}), "http://h/p?a=1#f");
    EXPECT_EQ(vtURLWithURL("http://h/p?", CXPlist::object()), "http://h/p?");
    EXPECT_EQ(vtURLWithURL("not a url", {{"k", "v"}}), std::nullopt);
}

} // namespace
