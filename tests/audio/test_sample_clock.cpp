#include "CXRealtime.h"
#include "Random.h"
#include "auclock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <numbers>

extern "C" const char* useOfC(void);

namespace {

__extension__ using Wide = unsigned __int128;
using Clock = std::unique_ptr<auclock, decltype(&auclock_destroy)>;

Clock aClock(uint64_t abstime, uint64_t sampletime, double rate)
{
    return {auclock_create(abstime, sampletime, rate), auclock_destroy};
}

// The host clock counts nanoseconds: frequency 1000000000/1.
TEST(auclock, holdsTheRateAsTheFractionItIs)
{
    using Fraction = std::pair<int64_t, int64_t>;
    const auto fractionOf = [](double rate) {
        const Clock clock = aClock(0, 0, rate);
        const int64_t num = clock->abs_to_sample_num;
        EXPECT_EQ(static_cast<uint64_t>(clock->abs_to_sample_bias), static_cast<uint64_t>(num) >> 1);
        EXPECT_EQ(clock->sample_to_abs_bias, 500'000'000);
        return Fraction(num, clock->abs_to_sample_den / 1'000'000'000);
    };
    EXPECT_EQ(fractionOf(44100.5), Fraction(88201, 2));
    EXPECT_EQ(fractionOf(-48000), Fraction(-48000, 1));
    EXPECT_EQ(fractionOf(0), Fraction(0, 1));
    EXPECT_EQ(fractionOf(1.0 / 3), Fraction(1, 3)) << "cut at the best convergent";
    EXPECT_EQ(fractionOf(std::nan("")), Fraction(0, 1));
    EXPECT_EQ(fractionOf(0x1p63), Fraction(INT64_MAX, 1));
    // Pi's denominator is cut too: its product with the host's frequency would overflow.
    for (const double rate : {44100.1, std::numbers::pi}) {
        const auto [num, den] = fractionOf(rate);
        EXPECT_NEAR(static_cast<double>(num) / static_cast<double>(den), rate, rate * 1e-15);
    }
}

// Compares with plain 128-bit arithmetic, over the whole range and on both sides of the epoch. If the
// quotient does not fit 64 bits, its low half is the result.
TEST(auclock, dividesIn128Bits)
{
    Random random(11);
    const auto word = [&random] {
        return (uint64_t{random.below(UINT32_MAX)} << 32 | random.below(UINT32_MAX)) >> random.below(64);
    };
    for (int i = 0; i < 200'000; ++i) {
        const double rate = i % 2 ? random.between(1.0, 400'000.0) : 8000 + random.below(192'000);
        const Clock original = aClock(word(), word(), rate);
        const Clock clock{auclock_create_copy(original.get()), auclock_destroy};
        const uint64_t value = word();
        const CXRealtimeScope realtime;
        const auto expected = [value](uint64_t from, uint64_t to, int64_t times, int64_t bias, int64_t by) {
            const Wide scaled =
                (Wide{value} - Wide{from}) * static_cast<Wide>(times) + static_cast<Wide>(bias);
            return static_cast<uint64_t>(scaled / static_cast<Wide>(by)) + to;
        };
        ASSERT_EQ(auclock_abstime_to_sampletime(clock.get(), value),
                  expected(clock->epoch_abstime, clock->epoch_sampletime, clock->abs_to_sample_num,
                           clock->abs_to_sample_bias, clock->abs_to_sample_den));
        ASSERT_EQ(auclock_sampletime_to_abstime(clock.get(), value),
                  expected(clock->epoch_sampletime, clock->epoch_abstime, clock->abs_to_sample_den,
                           clock->sample_to_abs_bias, clock->abs_to_sample_num));
    }
}

TEST(CFunctions, workFromC)
{
    EXPECT_STREQ(useOfC(), nullptr);
}

} // namespace
