#include "auclock.h"

#include "WideDivision.h"
#include "autimebase.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

__extension__ using Wide = unsigned __int128;

struct Fraction {
    int64_t numerator;
    int64_t denominator;
};

// A rate's denominator is limited by this constant, and so that its product with the frequency's numerator
// does not overflow. Without the second limit, a measured rate such as 44100.1 would overflow it and its
// clock would be far off.
constexpr int64_t denominatorLimit = int64_t{1} << 48;

/// Returns a double as a whole number over a power of two. Both must fit into 63 bits. Numbers that do not,
/// which are no valid rates, lose their lowest bits or are limited to the maximum.
Fraction binaryFraction(double magnitude)
{
    Fraction fraction{0, 1};
    for (; magnitude != std::floor(magnitude) && fraction.denominator < int64_t{1} << 62; magnitude *= 2)
        fraction.denominator *= 2;
    if (magnitude > 0)
        fraction.numerator = magnitude < 0x1p63 ? static_cast<int64_t>(magnitude) : INT64_MAX;
    return fraction;
}

/// Returns a * one + other, wrapping on overflow: a term that overflows is compared but not used.
int64_t nextTerm(int64_t a, int64_t one, int64_t other)
{
    return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(one) +
                                static_cast<uint64_t>(other));
}

/// Returns `value` as a fraction: exactly if the denominator stays below the limit, otherwise the best
/// approximation among the convergents and semiconvergents of its continued fraction. If a is exactly 2m, the
/// semiconvergent is used.
Fraction rational(double value, int64_t limit)
{
    const Fraction exact = binaryFraction(std::fabs(value));
    int64_t p = exact.numerator, q = exact.denominator;
    Fraction before{0, 1}, last{1, 0};
    for (int term = 0; term < 64; ++term) {
        const int64_t a = q == 0 ? 0 : p / q;
        if (term > 0 && a == 0)
            break;
        const int64_t k = nextTerm(a, last.denominator, before.denominator);
        if (k >= limit) {
            const int64_t m = (limit - before.denominator) / last.denominator;
            if (a <= 2 * m)
                last = {nextTerm(m, last.numerator, before.numerator),
                        nextTerm(m, last.denominator, before.denominator)};
            break;
        }
        const Fraction next{nextTerm(a, last.numerator, before.numerator), k};
        before = last;
        last = next;
        const int64_t rest = nextTerm(-a, q, p);
        p = q;
        q = rest;
    }
    if (value < 0)
        last.numerator = -last.numerator;
    return last;
}

int64_t product(int64_t a, int64_t b)
{
    return nextTerm(a, b, 0);
}

int64_t half(int64_t value)
{
    return static_cast<int64_t>(static_cast<uint64_t>(value) >> 1);
}

/// Returns epochTo + ((value - epochFrom) * multiplier + bias) / divisor, with an unsigned 128-bit division.
inline uint64_t converted(uint64_t value, uint64_t epochFrom, uint64_t epochTo, int64_t multiplier,
                          int64_t bias, int64_t divisor)
{
    // Computes the signed 128-bit product from an unsigned one. After the epoch and with a positive rate,
    // which is the usual case, the corrections cost only a predicted branch.
    const uint64_t distance = value - epochFrom;
    Wide scaled = static_cast<Wide>(distance) * static_cast<uint64_t>(multiplier);
    if (value < epochFrom)
        scaled -= static_cast<Wide>(static_cast<uint64_t>(multiplier)) << 64;
    if (multiplier < 0)
        scaled -= static_cast<Wide>(distance) << 64;
    scaled += static_cast<uint64_t>(bias); // not negative
    return wideQuotient(static_cast<uint64_t>(scaled >> 64), static_cast<uint64_t>(scaled),
                        static_cast<uint64_t>(divisor)) +
           epochTo;
}

} // namespace

auclock* auclock_create(uint64_t epoch_abstime, uint64_t epoch_sampletime, double rate) noexcept
{
    auto* const clock = static_cast<auclock*>(std::calloc(1, sizeof(auclock)));
    if (!clock)
        return nullptr;
    const Fraction frequency = rational(autimebase_frequency(autimebase_get_shared()), denominatorLimit);
    const Fraction samples = rational(rate, std::min(denominatorLimit, INT64_MAX / frequency.numerator));
    *clock = {epoch_abstime,
              epoch_sampletime,
              rate,
              product(samples.numerator, frequency.denominator),
              product(samples.denominator, frequency.numerator),
              half(samples.numerator),
              half(frequency.numerator)};
    return clock;
}

auclock* auclock_create_copy(const auclock* clock) noexcept
{
    auto* const copy = static_cast<auclock*>(std::malloc(sizeof(auclock)));
    if (copy)
        *copy = *clock;
    return copy;
}

void auclock_destroy(auclock* clock) noexcept
{
    std::free(clock);
}

uint64_t auclock_epoch_abstime(const auclock* clock) noexcept
{
    return clock->epoch_abstime;
}

uint64_t auclock_epoch_sampletime(const auclock* clock) noexcept
{
    return clock->epoch_sampletime;
}

double auclock_rate(const auclock* clock) noexcept
{
    return clock->rate;
}

uint64_t auclock_abstime_to_sampletime(const auclock* clock, uint64_t abstime) noexcept
{
    return converted(abstime, clock->epoch_abstime, clock->epoch_sampletime, clock->abs_to_sample_num,
                     clock->abs_to_sample_bias, clock->abs_to_sample_den);
}

uint64_t auclock_sampletime_to_abstime(const auclock* clock, uint64_t sampletime) noexcept
{
    return converted(sampletime, clock->epoch_sampletime, clock->epoch_abstime, clock->abs_to_sample_den,
                     clock->sample_to_abs_bias, clock->abs_to_sample_num);
}
