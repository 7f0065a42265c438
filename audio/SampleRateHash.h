#pragma once

#include <cmath>
#include <cstdint>

/// A rate or another positive number cut to a whole one, for hashes. What no whole number stands for hashes
/// as 0, except that a negative number wraps, so that it is not the hash of every negative number.
inline uint64_t wholeNumberForHash(double value) noexcept
{
    if (!(std::fabs(value) < 0x1p63))
        return 0;
    return static_cast<uint64_t>(static_cast<int64_t>(value));
}
