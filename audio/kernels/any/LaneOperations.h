#pragma once

#include "Lanes.h"

// What has an instruction of its own on some processors, for the others.

namespace {

/// `limit` where x is above it; a NaN stays.
template <int count> inline Lanes<count> notAbove(Lanes<count> limit, Lanes<count> x)
{
    return limit < x ? limit : x;
}

/// `limit` where x is below it; a NaN stays.
template <int count> inline Lanes<count> notBelow(Lanes<count> limit, Lanes<count> x)
{
    return limit > x ? limit : x;
}

template <int count> inline Ints<count> toInts(Shorts<count> v)
{
    return __builtin_convertvector(v, Ints<count>);
}

template <int count> inline Lanes<2 * count> joined(Lanes<count> low, Lanes<count> high)
{
    return [&]<int... lane>(std::integer_sequence<int, lane...>)
    {
        return Lanes<2 * count>(__builtin_shufflevector(low, high, lane...));
    }
    (std::make_integer_sequence<int, 2 * count>());
}

/// Cut to whole numbers and to their low 16 bits; NaN gives 0.
template <int count> inline Shorts<count> toShorts(Lanes<count> x)
{
    const Lanes<count> numbers = x == x ? x : Lanes<count>{};
    return __builtin_convertvector(__builtin_convertvector(numbers, Ints<count>), Shorts<count>);
}

} // namespace
