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
    EXPECT_EQ(
        vt_select(CXPlist{{"a", 1}, {"b", 2}}, [](const std::string& key, auto&) { return key == "b"; }),
        (CXPlist{{"b", 2}}));
    CXPlist list = CXPlist::array();
    safeAddObject(list, nullptr);
    safeAddObject(list, 5);
    EXPECT_EQ(list, CXPlist::array({5}));
}

TEST(PlistDictionaries, convertWhatTheyHold)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const struct {
        CXPlist value;
        int64_t integer;
        double real;
        bool boolean;
    } rows[] = {
        {true, 1, 1.0, true},
        {" 12.75 Hz", 12, 12.75, true},
        {1e300, INT32_MAX, 1e300, true},
        {4294967297, 1, 4294967297.0, true},
        {-3.99, -3, -3.99, true},
        {{1}, 0, 0.0, false},
        {"nan", 0, 0.0, false},
        {"1e999", INT32_MAX, infinity, true},
        {nullptr, 0, 0.0, false},
        {"true", 0, 0.0, true},
        {"00", 0, 0.0, false},
        {"\xFF\xFE 1", 0, 0.0, false},
        {"-1e-999", 0, 0.0, false},
    };
    for (const auto& row : rows) {
        const CXPlist values = {{"k", row.value}};
        EXPECT_EQ(safeIntegerForKey(values, "k"), row.integer) << row.real;
        EXPECT_EQ(safeDoubleForKey(values, "k"), row.real);
        EXPECT_EQ(safeBoolForKey(values, "k"), row.boolean) << row.real;
    }
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
    const std::tuple<const char*, std::string, bool> rows[] = {
        {"one brace", "{", false},
        {"something behind it", "{}{}", false},
        {"no UTF-8", "\"\xFF\"", false},
        {"half a surrogate pair", R"("\ud800")", false},
        {"a number out of range", "1e999", false},
        {"the largest number", "18446744073709551615", true},
        {"as deep as is read", nested(512), true},
        {"deeper", nested(513), false},
        {"brackets in a string are not deep", R"("\")" + std::string(600, '[') + '"', true},
        {"very deep", std::string(1'000'000, '{'), false},
        {"too long", '"' + std::string(100'000'000, 'a') + '"', false},
    };
    for (const auto& [why, text, isRead] : rows)
        EXPECT_EQ(CXPlistWithJSON(text).has_value(), isRead) << why;
    EXPECT_TRUE(CXPlistFitsJSON(CXPlist::parse(nested(512))));
    EXPECT_FALSE(CXPlistFitsJSON(CXPlist::parse(nested(513))));
}

TEST(PlistEquality, toleratesSmallDifferencesAndOneKey)
{
    const CXPlist deep = {{"a", {{{"t", 1}, {"x", 0.1}}}}};
    const struct {
        const char* why;
        CXPlist value, other;
        bool isEqual;
    } rows[] = {
        {"the ignored key on one side", {{"a", 1}, {"b", 2}, {"t", 5}}, {{"a", 1}, {"b", 2}}, true},
        {"another key instead of it", {{"a", 1}, {"t", 5}}, {{"a", 1}, {"b", 2}}, false},
        {"ignored at every depth", deep, {{"a", {{{"x", 0.1004}}}}}, true},
        {"close enough", 0.1, 0.1004, true},
        {"too far", 0.1, 0.1006, false},
        {"a boolean is a number", true, 1, true},
        {"an array is no dictionary", CXPlist::array(), CXPlist::object(), false},
        {"arrays of other lengths", {1, 2}, {1}, false},
        {"a number reads a string", 1.5, "1.5001", true},
        {"a string does not read a number", "1.5", 1.5, false},
        {"the other side's entry is the one asked", {{"k", "1.5"}}, {{"k", 1.5}}, true},
        {"nor does a number read a list", 1, {1}, false},
        {"not a number", std::nan(""), std::nan(""), true},
        {"the same bits with and without a sign", UINT64_MAX, -1, false},
        {"with and without a sign", uint64_t{7}, int64_t{7}, true},
    };
    for (const auto& row : rows)
        EXPECT_EQ(vtIsEqual(row.value, row.other, "t"), row.isEqual) << row.why;
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
    const struct {
        std::string_view text;
        int32_t count, result;
        std::vector<float> read;
    } rows[] = {
        {"{1.5, 2, 3}", 3, 3, {1.5F, 2, 3}},
        {"größe 𝐀: -2.5e1*.5", 2, 2, {-25, 0.5F}},
        {"1e999 1e-999 2.", 3, 3, {infinity, 0, 2}},
        {"1;2", 2, 1, {1}},
        {"nan inf", 1, 0, {}},
        {"- 1", 1, 0, {}},
        {"٣ 1", 1, 0, {}},
        // Beyond a float's range while parsing; the exponent's sign alone does not decide on which side.
        {tinyTimes100, 1, 1, {0}},
        {hugeBy100, 1, 1, {infinity}},
        {"-0.1e40 1e-99999999999999999999 0.001e99999999999999999999", 3, 3, {-infinity, 0, infinity}},
        {"\xFF 1", 1, 0, {}},
        {"1", -4, -4, {}},
    };
    for (const auto& row : rows) {
        float floats[4] = {-1, -1, -1, -1};
        EXPECT_EQ(scanFloatArray(row.text, floats, row.count), row.result) << row.text;
        EXPECT_TRUE(std::equal(row.read.begin(), row.read.end(), floats)) << row.text;
        EXPECT_EQ(floats[row.read.size()], -1.0F) << row.text;
    }
}

TEST(TimeBase, scalesExactlyAndCutsTowardsZero)
{
    const struct {
        const char* why;
        uint64_t value;
        uint32_t multiplier, divisor;
        uint64_t result;
    } rows[] = {
        {"equal terms are untouched", UINT64_MAX - 1, 125, 125, UINT64_MAX - 1},
        {"a divisor of one", 5, 3, 1, 15},
        {"cut, not rounded", 2, 2, 3, 1},
        {"a product beyond 64 bits", UINT64_MAX, 3, 125, 442721857769029238},
        {"only the low bits of too large a result", UINT64_MAX, 4, 2, UINT64_MAX - 1},
    };
    for (const auto& row : rows)
        EXPECT_EQ(_multiplyRatio(row.value, row.multiplier, row.divisor), row.result) << row.why;

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
         {"", "a b", "h\xC3\xA4", "%G0", "%2", "a#b#c", "1a:b", "http://h:x/", "http://[::1"})
        EXPECT_EQ(safeURLWithString(bad), std::nullopt) << bad;
    EXPECT_EQ(vtURLWithURL("http://h/p?old=1#f", {{"a&b", "c=\xFF e"}, {"n", 1}, {"only", nullptr}}),
              "http://h/p?a%26b=c%3D%FF%20e&n=1&only&old=1#f");
    EXPECT_EQ(vtURLWithURL("not a url", {{"k", "v"}}), std::nullopt);
}

} // namespace
