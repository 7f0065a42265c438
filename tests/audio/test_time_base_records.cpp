#include "autimebase.h"

#include <gtest/gtest.h>

namespace {

TEST(autimebase, convertsByItsRatioAndStartsFromTheHostClock)
{
    const autimebase slow{3.0 / 125.0 * 1e9, 125, 3};
    EXPECT_EQ(autimebase_abstime_to_nanoseconds(&slow, 24'000'000), 1'000'000'000U);
    EXPECT_EQ(autimebase_nanoseconds_to_abstime(&slow, 1'000'000'000), 24'000'000U);

    autimebase* const base = autimebase_create();
    EXPECT_EQ(autimebase_frequency(base), autimebase_frequency(autimebase_get_shared()));
    const uint64_t before = autimebase_abstime();
    EXPECT_LE(autimebase_abstime_to_nanoseconds(base, before), autimebase_nanoseconds(base));
    autimebase_destroy(base);
    autimebase_destroy(nullptr);
}

} // namespace
