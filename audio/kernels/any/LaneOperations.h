#pragma once

#include "Lanes.h"

// Portable versions of the operations for which some processors have single instructions.

namespace {

/// Returns x. On other processors this prevents repeated loads.
template <int count> inline Lanes<count> loadedOnce(Lanes<count> x)
{
    return x;
}

/// The smaller of `limit` and x in each lane; NaN in x is kept.
template <int count> inline Lanes<count> notAbove(Lanes<count> limit, Lanes<count> x)
{
    return limit < x ? limit : x;
}

/// The greater of `limit` and x in each lane; NaN in x is kept.
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

/// Converts to 16 bits with saturation.
template <int count> inline Shorts<count> toShorts(Ints<count> v)
{
    const Ints<count> highest = Ints<count>{} + 32767, lowest = Ints<count>{} - 32768;
    v = v < highest ? v : highest;
    return __builtin_convertvector(v > lowest ? v : lowest, Shorts<count>);
}

/// Sums with saturation to 16 bits.
template <int count> inline Shorts<count> saturatedSum(Shorts<count> a, Shorts<count> b)
{
    return toShorts<count>(toInts<count>(a) + toInts<count>(b));
}

/// Truncates x to whole numbers. x may be below their range but not above. Returns 0 where `from`, from which
/// x was computed, is NaN.
template <int count> inline Ints<count> cut(Lanes<count> x, Lanes<count> from)
{
    const Lanes<count> low = notBelow<count>(allLanes<count>(-2147483648.0F), x);
    return __builtin_convertvector(from == from ? low : Lanes<count>{}, Ints<count>);
}

/// Converts `a` followed by `b` to 16 bits with saturation.
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
