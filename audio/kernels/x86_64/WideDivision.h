#pragma once

#include <cstdint>

/// Returns the low 64 bits of (high * 2^64 + low) / `divisor`, all unsigned. `divisor` must not be 0.
inline uint64_t wideQuotient(uint64_t high, uint64_t low, uint64_t divisor) noexcept
{
    // The instruction traps if the quotient needs more than 64 bits. Reducing `high` does not change the low
    // 64 bits.
    if (high >= divisor)
        high %= divisor;
    uint64_t quotient = 0, remainder = 0;
    asm("divq %4" : "=a"(quotient), "=d"(remainder) : "a"(low), "d"(high), "r"(divisor) : "cc");
    return quotient;
}
