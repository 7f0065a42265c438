#pragma once

#include <cstdint>

/// The low 64 bits of high * 2^64 + low, divided by `divisor`, which is not 0. All unsigned.
inline uint64_t wideQuotient(uint64_t high, uint64_t low, uint64_t divisor) noexcept
{
    // The instruction traps when the quotient needs more than 64 bits; the surplus does not reach the low
    // bits.
    if (high >= divisor)
        high %= divisor;
    uint64_t quotient = 0, remainder = 0;
    asm("divq %4" : "=a"(quotient), "=d"(remainder) : "a"(low), "d"(high), "r"(divisor) : "cc");
    return quotient;
}
