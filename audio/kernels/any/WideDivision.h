#pragma once

#include <cstdint>

/// Returns the low 64 bits of (high * 2^64 + low) / `divisor`, all unsigned. `divisor` must not be 0.
inline uint64_t wideQuotient(uint64_t high, uint64_t low, uint64_t divisor) noexcept
{
    __extension__ using Wide = unsigned __int128;
    return static_cast<uint64_t>((static_cast<Wide>(high) << 64 | low) / divisor);
}
