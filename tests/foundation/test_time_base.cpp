#include "CXTimeBase.h"
#include "_multiplyRatio.h"

#include <gtest/gtest.h>

namespace {

TEST(TimeBase, scalesExactlyAndCutsTowardsZero)
{
    struct {
        const char* why;
        uint64_t value;
        uint32_t multiplier;
        uint32_t divisor;
        uint64_t result;
    } const rows[] = {
        {"one to one is untouched", UINT64_MAX, 1, 1, UINT64_MAX},
        {"equal terms are untouched", UINT64_MAX - 1, 125, 125, UINT64_MAX - 1},
        {"a second of 24 MHz ticks", 24'000'000, 125, 3, 1'000'000'000},
        {"and back", 1'000'000'000, 3, 125, 24'000'000},
        {"cut, not rounded", 2, 2, 3, 1},
        {"a product beyond 64 bits", UINT64_MAX, 3, 125, 442721857769029238},
        {"only the low bits of too large a result", UINT64_MAX, 4, 2, UINT64_MAX - 1},
    };
    for (const auto& row : rows)
        EXPECT_EQ(_multiplyRatio(row.value, row.multiplier, row.divisor), row.result) << row.why;
}

TEST(CXTimeBase, convertsByItsRatio)
{
    const CXRef<CXTimeBase> base = CXTimeBase::initWithRatio(125, 3);
    EXPECT_EQ(base->absoluteFrequency(), 3.0 / 125.0 * 1e9);
    EXPECT_EQ(base->nanosecondsFromAbsoluteTime(24'000'000), 1'000'000'000U);
    EXPECT_EQ(base->absoluteTimeFromNanoseconds(1'000'000'000), 24'000'000U);
    const CXRef<CXTimeBase> shared = CXTimeBase::sharedTimeBase();
    EXPECT_EQ(CXTimeBase::sharedTimeBase(), shared);
    const uint64_t before = shared->absoluteTime();
    EXPECT_GE(shared->nanoseconds(), shared->nanosecondsFromAbsoluteTime(before));
}

} // namespace
