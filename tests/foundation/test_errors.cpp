#include "CXErrorAdditions.h"
#include "CXStackTrace.h"
#include "CapturedLog.h"
#include "DXRDebugLog.h"
#include "DebuggerCheck.h"
#include "ReasonOf.h"

#include <algorithm>

namespace {

std::string suggestionOf(const CXRef<CXError>& error)
{
    return error->userInfo().at(CXError::localizedRecoverySuggestionKey)->description();
}

std::string reported;

extern "C" DXR_EXPORT __attribute__((noinline)) void functionThatReports()
{
    reported = CXStackTrace::fromCurrentStack()->description();
}

// The call below is the last instruction of its function, so its return address is in the next function.
extern "C" DXR_EXPORT __attribute__((noinline)) void functionThatFails()
{
    _CXFailedAssertion(nullptr, nullptr, nullptr, 1);
}
extern "C" DXR_EXPORT __attribute__((noinline)) void functionBehindIt() {}

void (*volatile failing)() = functionThatFails;

__attribute__((noinline)) void failAtDepth(int depth) // NOLINT: recursion on purpose
{
    if (depth > 0) {
        failAtDepth(depth - 1);
    } else {
        functionThatReports();
        failing();
    }
    asm volatile("" ::: "memory"); // prevents a tail call
}

TEST(CXStackTrace, endsAtTheReportingFunctionHoweverDeepTheStack)
{
    EXPECT_EQ(CXStackTrace::initWithCrawlFrames({})->description(), "(N/A)");
    functionBehindIt();
    for (const int depth : {0, 40}) {
        try {
            failAtDepth(depth);
        } catch (const CXException& exception) {
            const std::string thrown = CXStackTrace::fromException(exception)->description();
            EXPECT_NE(thrown.find(" functionThatFails + "), std::string::npos) << thrown;
            EXPECT_NE(reported.find(" functionThatReports + "), std::string::npos) << reported;
            EXPECT_EQ(std::ranges::count(reported, '\n') == 31, depth == 40);
            EXPECT_EQ(reported.find("__libc_start") < reported.size() / 2, depth == 0) << "outermost first";
        }
    }
}

TEST(CXFailedAssertion, namesWhatItWasGiven)
{
    EXPECT_EQ(reasonOf([] { _CXFailedAssertion("-[A b]", "x > 0", "A.cpp", 7); }), "-[A b] - x > 0 A.cpp:7");
    EXPECT_EQ(reasonOf([] { _CXFailedAssertion(nullptr, "x > 0", "A.cpp", 7); }), "x > 0 A.cpp:7");
    EXPECT_EQ(reasonOf([] { _CXFailedAssertion(nullptr, nullptr, nullptr, 7); }), "N/A:7");
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
    const CXRef<CXError> untitled = CXError::errorWithDomain("d", 0, std::nullopt, "open failed: %s", "x");
    EXPECT_EQ(suggestionOf(untitled), "open failed: x");
    EXPECT_EQ(untitled->userInfo().size(), 1U) << "no title";
    const CXError::UserInfo null{{CXError::localizedDescriptionKey, nullptr}};
    EXPECT_EQ(CXError::errorWithDomain("d", 1, null, std::nullopt, nullptr)->description(), "d code 1");
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
    CXLogError(error);
    const std::vector<std::string> lines = log.lines();
    EXPECT_TRUE(lines[lines.size() - 2].starts_with("Error: d code 4: title ({")) << lines.back();
    EXPECT_TRUE(lines.back().starts_with("     : ")) << lines.back();
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

} // namespace
