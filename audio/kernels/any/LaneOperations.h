#pragma once

#include "Lanes.h"

#include <bit>

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

/// Each x times `negative` where its sign is set in `signs`, else times `positive`.
template <int count>
inline Lanes<count> scaledBySign(Lanes<count> x, Ints<count> signs, float negative, float positive)
{
    // By the bits: chosen with a mask made of the sign.
    const int32_t below = std::bit_cast<int32_t>(negative), above = std::bit_cast<int32_t>(positive);
    return x * reinterpret_cast<Lanes<count>>(((signs >> 31) & (below - above)) + above);
}

/// The sums, cut off at the ends of 16 bits.
template <int count> inline Shorts<count> saturatedSum(Shorts<count> a, Shorts<count> b)
{
    const Ints<count> highest = Ints<count>{} + 32767, lowest = Ints<count>{} - 32768;
    Ints<count> sum = toInts<count>(a) + toInts<count>(b);
    sum = sum < highest ? sum : highest;
    return __builtin_convertvector(sum > lowest ? sum : lowest, Shorts<count>);
}

/// Cut to whole numbers and to their low 16 bits; NaN gives 0.
template <int count> inline Shorts<count> toShorts(Lanes<count> x)
{
    const Lanes<count> numbers = x == x ? x : Lanes<count>{};
    return __builtin_convertvector(__builtin_convertvector(numbers, Ints<count>), Shorts<count>);
}

} // namespace
