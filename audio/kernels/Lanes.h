#pragma once

#include <cstdint>
#include <cstring>
#include <utility>

// Vectors of `count` floats, and the operations that the kernels need beyond the compiler's arithmetic. Only
// kernel sources include this file, and each is compiled for one instruction set. Everything is in an unnamed
// namespace, because a function shared between them could contain instructions that a processor lacks.

namespace {

template <int count> struct LanesOf {
    typedef float Floats __attribute__((vector_size(count * sizeof(float))));
};
template <int count> using Lanes = typename LanesOf<count>::Floats;
template <int count> struct WideLanesOf {
    typedef double Doubles __attribute__((vector_size(count * sizeof(double))));
    typedef int32_t Ints __attribute__((vector_size(count * sizeof(int32_t))));
    typedef int16_t Shorts __attribute__((vector_size(count * sizeof(int16_t))));
};
template <int count> using WideLanes = typename WideLanesOf<count>::Doubles;
template <int count> using Ints = typename WideLanesOf<count>::Ints;
template <int count> using Shorts = typename WideLanesOf<count>::Shorts;
using Pairs = double __attribute__((vector_size(16))); // two pairs of floats, only moved

template <int count> inline Lanes<count> allLanes(float value)
{
    return value - Lanes<count>{}; // the only conversion that both compilers accept
}

template <int count> inline Lanes<count> loadLanes(const void* from)
{
    Lanes<count> lanes;
    std::memcpy(&lanes, from, sizeof lanes);
    return lanes;
}

template <int count> inline void storeLanes(void* to, Lanes<count> lanes)
{
    std::memcpy(to, &lanes, sizeof lanes);
}

/// Loads `used` floats into the lowest lanes; the other lanes are zero.
template <int used> inline auto loadLowLanes(const float* from)
{
    if constexpr (used == 1) {
        return Lanes<4>{*from, 0, 0, 0};
    } else if constexpr (used == 2) {
        double pair;
        std::memcpy(&pair, from, sizeof pair);
        return reinterpret_cast<Lanes<4>>(Pairs{pair, 0});
    } else {
        return loadLanes<used>(from);
    }
}

template <int used, class Vector> inline void storeLowLanes(float* to, Vector lanes)
{
    std::memcpy(to, &lanes, used * sizeof(float));
}

/// For each group of four lanes, selects lanes of `a` (indexes 0 to 3) and of `b` (4 to 7) in the given
/// order.
template <int count, int i0, int i1, int i2, int i3>
inline Lanes<count> shuffledInFours(Lanes<count> a, Lanes<count> b)
{
    return [&]<int... lane>(std::integer_sequence<int, lane...>)
    {
        constexpr int pick[4] = {i0, i1, i2, i3};
        return Lanes<count>(__builtin_shufflevector(
            a, b, (pick[lane % 4] < 4 ? pick[lane % 4] : pick[lane % 4] - 4 + count) + lane / 4 * 4 ...));
    }
    (std::make_integer_sequence<int, count>());
}

/// Every second group of four lanes of `a` and then of `b`, beginning with group `first`.
template <int count, int first> inline Lanes<count> everyOtherFour(Lanes<count> a, Lanes<count> b)
{
    return [&]<int... lane>(std::integer_sequence<int, lane...>)
    {
        return Lanes<count>(__builtin_shufflevector(a, b, (lane / 4 * 8 + first * 4 + lane % 4)...));
    }
    (std::make_integer_sequence<int, count>());
}

/// The highest `shift` lanes of `before`, followed by the lowest lanes of `x`.
template <int count, int shift> inline Lanes<count> shiftedIn(Lanes<count> before, Lanes<count> x)
{
    return [&]<int... lane>(std::integer_sequence<int, lane...>)
    {
        return Lanes<count>(__builtin_shufflevector(before, x, (count - shift + lane)...));
    }
    (std::make_integer_sequence<int, count>());
}

/// Lanes first … first + used - 1.
template <int count, int used, int first> inline Lanes<used> lanesFrom(Lanes<count> lanes)
{
    return [&]<int... lane>(std::integer_sequence<int, lane...>)
    {
        return Lanes<used>(__builtin_shufflevector(lanes, lanes, (first + lane)...));
    }
    (std::make_integer_sequence<int, used>());
}

} // namespace
