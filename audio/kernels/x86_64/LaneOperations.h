#pragma once

#include "Lanes.h"

#include <bit>
#include <immintrin.h>

// What the compilers do not find by themselves: each is one instruction. Only for kernel sources; the widths
// are those of the instruction set that is being compiled for.

namespace {

#ifdef __AVX512F__
// The masked forms compile to the plain instructions, whose own form gcc 12 takes for uninitialised.
inline constexpr __mmask16 everyLane = 0xFFFF;
#endif

/// `limit` where x is above it; a NaN stays.
template <int count> inline Lanes<count> notAbove(Lanes<count> limit, Lanes<count> x)
{
    if constexpr (count == 4)
        return _mm_min_ps(limit, x);
#ifdef __AVX__
    else if constexpr (count == 8)
        return _mm256_min_ps(limit, x);
#endif
#ifdef __AVX512F__
    else if constexpr (count == 16)
        return _mm512_maskz_min_ps(everyLane, limit, x);
#endif
}

/// `limit` where x is below it; a NaN stays.
template <int count> inline Lanes<count> notBelow(Lanes<count> limit, Lanes<count> x)
{
    if constexpr (count == 4)
        return _mm_max_ps(limit, x);
#ifdef __AVX__
    else if constexpr (count == 8)
        return _mm256_max_ps(limit, x);
#endif
#ifdef __AVX512F__
    else if constexpr (count == 16)
        return _mm512_maskz_max_ps(everyLane, limit, x);
#endif
}

template <int count> inline Ints<count> toInts(Shorts<count> v)
{
#ifdef __AVX512F__
    if constexpr (count == 16)
        return reinterpret_cast<Ints<count>>(
            _mm512_maskz_cvtepi16_epi32(everyLane, reinterpret_cast<__m256i>(v)));
    else
#endif
        return __builtin_convertvector(v, Ints<count>);
}

/// `low` and above it `high`.
template <int count>
inline Lanes<2 * count> joined([[maybe_unused]] Lanes<count> low, [[maybe_unused]] Lanes<count> high)
{
    static_assert(count >= 4, "no vectors of two floats");
#ifdef __AVX512F__
    if constexpr (count == 8)
        return _mm512_insertf32x8(_mm512_castps256_ps512(low), high, 1);
    else
#endif
#ifdef __AVX__
        return _mm256_insertf128_ps(_mm256_castps128_ps256(low), high, 1);
#endif
}

/// Each x times `negative` where its sign is set in `signs`, else times `positive`.
template <int count>
inline Lanes<count> scaledBySign(Lanes<count> x, Ints<count> signs, float negative, float positive)
{
#ifdef __AVX512F__
    if constexpr (count == 16)
        return _mm512_mask_mul_ps(x * positive, _mm512_movepi32_mask(reinterpret_cast<__m512i>(signs)), x,
                                  allLanes<count>(negative));
#endif
    // By the bits: chosen with a mask made of the sign.
    const int32_t below = std::bit_cast<int32_t>(negative), above = std::bit_cast<int32_t>(positive);
    return x * reinterpret_cast<Lanes<count>>(((signs >> 31) & (below - above)) + above);
}

/// The sums, cut off at the ends of 16 bits.
template <int count> inline Shorts<count> saturatedSum(Shorts<count> a, Shorts<count> b)
{
#ifdef __AVX2__
    if constexpr (count == 16)
        return reinterpret_cast<Shorts<count>>(
            _mm256_adds_epi16(reinterpret_cast<__m256i>(a), reinterpret_cast<__m256i>(b)));
#endif
    if constexpr (count == 8)
        return reinterpret_cast<Shorts<count>>(
            _mm_adds_epi16(reinterpret_cast<__m128i>(a), reinterpret_cast<__m128i>(b)));
    if constexpr (count == 4) {
        const __m128i sum = _mm_adds_epi16(_mm_set_epi64x(0, reinterpret_cast<int64_t>(a)),
                                           _mm_set_epi64x(0, reinterpret_cast<int64_t>(b)));
        return reinterpret_cast<Shorts<count>>(static_cast<int64_t>(_mm_cvtsi128_si64(sum)));
    }
}

/// Cut to whole numbers and to their low 16 bits; NaN gives 0, because its whole number is -2^31.
template <int count> inline Shorts<count> toShorts(Lanes<count> x)
{
#ifdef __AVX512F__
    if constexpr (count == 16)
        return reinterpret_cast<Shorts<count>>(
            _mm512_maskz_cvtepi32_epi16(everyLane, _mm512_maskz_cvttps_epi32(everyLane, x)));
#endif
#ifdef __AVX__
    if constexpr (count == 8)
        return __builtin_convertvector(reinterpret_cast<Ints<count>>(_mm256_cvttps_epi32(x)), Shorts<count>);
#endif
    if constexpr (count == 4)
        return __builtin_convertvector(reinterpret_cast<Ints<count>>(_mm_cvttps_epi32(x)), Shorts<count>);
}

} // namespace
