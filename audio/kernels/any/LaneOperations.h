#pragma once

#include "Lanes.h"

// What has an instruction of its own on some processors, for the others.

namespace {

/// x, where there are no instructions that fetch and compute at once.
template <int count> inline Lanes<count> loadedOnce(Lanes<count> x)
{
    return x;
}

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

/// a - b, as floats.
template <int count> inline Lanes<count> differences(const WideLanes<count>& a, const Ints<count>& b)
{
    return __builtin_convertvector(a - __builtin_convertvector(b, WideLanes<count>), Lanes<count>);
}

template <int count> inline Lanes<2 * count> joined(Lanes<count> low, Lanes<count> high)
{
    return [&]<int... lane>(std::integer_sequence<int, lane...>)
    {
        return Lanes<2 * count>(__builtin_shufflevector(low, high, lane...));
    }
    (std::make_integer_sequence<int, 2 * count>());
}

/// As 16 bits, cut off at their ends.
template <int count> inline Shorts<count> toShorts(Ints<count> v)
{
    const Ints<count> highest = Ints<count>{} + 32767, lowest = Ints<count>{} - 32768;
    v = v < highest ? v : highest;
    return __builtin_convertvector(v > lowest ? v : lowest, Shorts<count>);
}

/// The sums, cut off at the ends of 16 bits.
template <int count> inline Shorts<count> saturatedSum(Shorts<count> a, Shorts<count> b)
{
    return toShorts<count>(toInts<count>(a) + toInts<count>(b));
}

/// x cut to whole numbers, which it may be below but not above; 0 where `from`, which x was made of, is NaN.
template <int count> inline Ints<count> cut(Lanes<count> x, Lanes<count> from)
{
    const Lanes<count> low = notBelow<count>(allLanes<count>(-2147483648.0F), x);
    return __builtin_convertvector(from == from ? low : Lanes<count>{}, Ints<count>);
}

/// a and behind it b, cut off at the ends of 16 bits.
template <int count> inline Shorts<2 * count> packed(Ints<count> a, Ints<count> b)
{
    const Shorts<count> low = toShorts<count>(a), high = toShorts<count>(b);
    return [&]<int... lane>(std::integer_sequence<int, lane...>)
    {
        return Shorts<2 * count>(__builtin_shufflevector(low, high, lane...));
    }
    (std::make_integer_sequence<int, 2 * count>());
}

} // namespace
