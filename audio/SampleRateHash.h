#pragma once

#include <cmath>
#include <cstdint>

/// Truncates a number, usually a positive one such as a sample rate, to a whole number for hashing. Returns 0
/// if the number is too large or NaN. A negative number wraps around, so that not all negative numbers have
/// the same hash.
inline uint64_t wholeNumberForHash(double value) noexcept
{
    if (value >= 0x1p63 && value < 0x1p64)
        return static_cast<uint64_t>(value);
    return std::fabs(value) < 0x1p63 ? static_cast<uint64_t>(static_cast<int64_t>(value)) : 0;
}
