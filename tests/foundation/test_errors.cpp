#include "CXErrorAdditions.h"
#include "CXFourCharCode.h"
#include "CXStackTrace.h"
#include "CapturedLog.h"
#include "DXRDebugLog.h"
#include "DebuggerCheck.h"
#include "ReasonOf.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

std::vector<std::string> frames(int count)
{
    std::vector<std::string> all;
    for (int i = 0; i < count; ++i)
        all.push_back(std::to_string(i));
    return all;
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string suggestionOf(const CXRef<CXError>& error)
{
    const auto found = error->userInfo().find(CXError::localizedRecoverySuggestionKey);
    return found == error->userInfo().end() ? "(none)" : found->second->description();
}

TEST(CXStackTrace, showsThirtyTwoFramesWithoutTheInnermost)
{
    const auto shown = [](int count) {
        return linesOf(CXStackTrace::initWithCrawlFrames(frames(count))->description());
    };
    EXPECT_EQ(shown(0), std::vector<std::string>{"(N/A)"});
    EXPECT_EQ(shown(32), frames(32));
    EXPECT_EQ(shown(33), frames(32));
    const std::vector<std::string> deep = shown(40);
    ASSERT_EQ(deep.size(), 32U);
    EXPECT_EQ(deep.front(), "7");
    EXPECT_EQ(deep.back(), "38");
}

std::string deepTrace;
const void* reportersCaller = nullptr;

__attribute__((noinline)) void reportFromHere()
{
    reportersCaller = __builtin_return_address(0);
    deepTrace = CXStackTrace::fromCurrentStack()->description();
}

__attribute__((noinline)) void reportFromDepth(int depth) // NOLINT: recursion on purpose
{
    depth > 0 ? reportFromDepth(depth - 1) : reportFromHere();
    asm volatile("" ::: "memory"); // prevents a tail call
}

TEST(CXStackTrace, endsAtTheReportingFunctionHoweverDeepTheStack)
{
    reportFromDepth(0);
    const size_t start = deepTrace.find("__libc_start");
    EXPECT_LT(start, deepTrace.size() / 2) << "the outermost call comes first: " << deepTrace;
    reportFromDepth(40);
    const std::vector<std::string> lines = linesOf(deepTrace);
    ASSERT_EQ(lines.size(), 32U);
    std::ostringstream address;
    address << ' ' << reportersCaller << ' ';
    EXPECT_NE(lines[30].find(address.str()), std::string::npos) << "its caller: " << lines[30];
}

// The call below is the last instruction of its function, so its return address is in the next function.
extern "C" DXR_EXPORT __attribute__((noinline)) void functionThatFails()
{
    _CXFailedAssertion(nullptr, nullptr, nullptr, 1);
}
extern "C" DXR_EXPORT __attribute__((noinline)) void functionBehindIt() {}

TEST(CXStackTrace, namesTheFunctionWhoseCallNeverReturns)
{
    functionBehindIt();
    try {
        functionThatFails();
    } catch (const CXException& exception) {
        const std::string text = CXStackTrace::fromException(exception)->description();
        EXPECT_NE(text.find(" functionThatFails + "), std::string::npos) << text;
    }
}

TEST(CXFailedAssertion, namesWhatItWasGiven)
{
    struct {
        const char* text1;
        const char* text2;
        const char* file;
        const char* reason;
    } const rows[] = {
        {"-[A b]", "x > 0", "A.cpp", "-[A b] - x > 0 A.cpp:7"},
        {nullptr, "x > 0", "A.cpp", "x > 0 A.cpp:7"},
        {nullptr, nullptr, "A.cpp", "A.cpp:7"},
        {nullptr, nullptr, nullptr, "N/A:7"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(reasonOf([&] { _CXFailedAssertion(row.text1, row.text2, row.file, 7); }), row.reason);
}

TEST(CXError, laterEntriesReplaceGivenOnesOfTheSameKey)
{
    const CXRef<CXError> cause = CXError::errorWithDomain("cause", -3, std::nullopt, nullptr);
    const CXError::UserInfo given{{CXError::localizedDescriptionKey, CXValue::initWithPlist("old")},
                                  {CXErrorIsLongLived, CXValue::initWithPlist(true)}};
    const CXRef<CXError> error =
        CXError::errorWithDomain(CXVeltorrinErrorDomain, -50, cause, given, "new", "%d of %s", 2, "x");
    EXPECT_EQ(error->code(), -50);
    EXPECT_EQ(error->userInfo().at(CXError::localizedDescriptionKey)->description(), "new");
    EXPECT_EQ(error->userInfo().at(CXErrorIsLongLived)->description(), "true");
    EXPECT_EQ(suggestionOf(error), "2 of x");
    EXPECT_EQ(error->underlyingError(), cause);
    EXPECT_EQ(suggestionOf(CXError::errorWithDomain("d", 0, "title", nullptr)), "(none)");
    const CXRef<CXError> untitled = CXError::errorWithDomain("d", 0, std::nullopt, "open failed: %s", "x");
    EXPECT_EQ(suggestionOf(untitled), "open failed: x");
    EXPECT_EQ(untitled->userInfo().size(), 1U) << "no title";
}

TEST(CXError, reportsAnExceptionWithItsOwnUserInfo)
{
    const CXException exception("Name", std::nullopt, {{"k", 1}});
    const CXRef<CXError> error =
        CXError::errorFromException(exception, CXStackTrace::initWithCrawlFrames({"outer", "inner"}));
    EXPECT_EQ(error->domain(), "NSExceptionErrorDomain");
    EXPECT_EQ(error->userInfo().at("k")->description(), "1");
    EXPECT_EQ(suggestionOf(error), "Reason: (null)\nType: Name\nStack Trace: outer\ninner");
}

TEST(CXLogError, printsAStackOnlyWhenDebuggingIsEnabled)
{
    const CapturedLog log;
    const CXRef<CXError> error = CXError::errorWithDomain("d", 4, "title", nullptr);
    CXLogError(error);
    EXPECT_EQ(log.lines().size(), dxr::isDebuggerAttached() == true ? 2U : 1U);
    CXSetDebugEnabled(true);
    const size_t before = log.lines().size();
    CXLogError(error);
    ASSERT_EQ(log.lines().size(), before + 2);
    EXPECT_TRUE(log.lines()[before].starts_with("Error: d code 4: title ({")) << log.lines()[before];
    EXPECT_TRUE(log.lines()[before + 1].starts_with("     : ")) << log.lines()[before + 1];
}

// The switch is set once per process, so each case runs in a separate process.
TEST(DXRDebugLogDeathTest, isOffUnlessADebugCenterWasThereAtTheFirstLine)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto tooLate = [] {
        const CapturedLog log;
        DXRDebugLog("%d", 1);
        CXRegisterDebugCenter([] { return true; });
        DXRDebugLogWithStack("%d", 2);
        std::exit(log.lines().empty() ? 0 : 1);
    };
    const auto inTime = [] {
        CXRegisterDebugCenter([] {
            DXRDebugLog("dropped: this is what decides");
            return true;
        });
        const CapturedLog log;
        DXRDebugLogWithStack("%s!", "here");
        DXRDebugLogWithStack(nullptr);
        std::exit(log.lines() == std::vector<std::string>{"[DXR] here!"} ? 0 : 1);
    };
    EXPECT_EXIT(tooLate(), testing::ExitedWithCode(0), "^$");
    EXPECT_EXIT(inTime(), testing::ExitedWithCode(0), "^    ");
}

TEST(FourCharCode, fallsBackToDigits)
{
    EXPECT_EQ(stringWithFourCharCode(CXFourCharCode("dprt")), "dprt");
    EXPECT_EQ(stringWithFourCharCode(1), "00000001");
    EXPECT_EQ(CXFourCharCode("volm"), 0x766F6C6DU);
}

} // namespace
