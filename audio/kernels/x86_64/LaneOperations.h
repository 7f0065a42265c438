#pragma once

#include "Lanes.h"

#include <immintrin.h>

// Operations that compilers do not recognise; each is one instruction. Only for kernel sources; the supported
// widths are those of the instruction set that the source is compiled for.

namespace {

#ifdef __AVX512F__
// The masked intrinsics compile to the plain instructions. gcc 12 reports the plain intrinsics as
// uninitialised.
inline constexpr __mmask16 everyLane = 0xFFFF;
#endif

/// Returns x, and prevents the compiler from loading it again for each use, which is slow across cache lines.
template <int count> inline Lanes<count> loadedOnce(Lanes<count> x)
{
    asm("" : "+x"(x));
    return x;
}

/// The smaller of `limit` and x in each lane; NaN in x is kept.
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

/// The greater of `limit` and x in each lane; NaN in x is kept.
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

/// a - b, as floats.
template <int count> inline Lanes<count> differences(const WideLanes<count>& a, const Ints<count>& b)
{
#ifdef __AVX512F__
    if constexpr (count == 8)
        return __builtin_convertvector(a - _mm512_maskz_cvtepi32_pd(0xFF, reinterpret_cast<__m256i>(b)),
                                       Lanes<count>);
#endif
    return __builtin_convertvector(a - __builtin_convertvector(b, WideLanes<count>), Lanes<count>);
}

/// Concatenates `low` and `high`.
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

/// Sums with saturation to 16 bits.
template <int count> inline Shorts<count> saturatedSum(Shorts<count> a, Shorts<count> b)
{
#ifdef __AVX512BW__
    if constexpr (count == 32)
        return reinterpret_cast<Shorts<count>>(
            _mm512_adds_epi16(reinterpret_cast<__m512i>(a), reinterpret_cast<__m512i>(b)));
#endif
#ifdef __AVX2__
    if constexpr (count == 16)
        return reinterpret_cast<Shorts<count>>(
            _mm256_adds_epi16(reinterpret_cast<__m256i>(a), reinterpret_cast<__m256i>(b)));
#endif
    if constexpr (count == 8)
        return reinterpret_cast<Shorts<count>>(
            _mm_adds_epi16(reinterpret_cast<__m128i>(a), reinterpret_cast<__m128i>(b)));
}

/// Truncates x to whole numbers. x may be below their range but not above. Returns 0 where `from`, from which
/// x was computed, is NaN.
template <int count> inline Ints<count> cut(Lanes<count> x, Lanes<count> from)
{
#ifdef __AVX512F__
    if constexpr (count == 16)
        return reinterpret_cast<Ints<count>>(
            _mm512_maskz_cvttps_epi32(_mm512_cmp_ps_mask(from, from, _CMP_ORD_Q), x));
#endif
#ifdef __AVX__
    if constexpr (count == 8)
        return reinterpret_cast<Ints<count>>(_mm256_cvttps_epi32(x)) & (from == from);
#endif
    if constexpr (count == 4)
        return reinterpret_cast<Ints<count>>(_mm_cvttps_epi32(x)) & (from == from);
}

/// Converts `a` followed by `b` to 16 bits with saturation.
template <int count> inline Shorts<2 * count> packed(Ints<count> a, Ints<count> b)
{
    // The instruction alternates parts of a and b.
#ifdef __AVX512BW__
    if constexpr (count == 16) {
        const __m512i order = _mm512_set_epi64(7, 5, 3, 1, 6, 4, 2, 0);
        const __m512i pieces = _mm512_packs_epi32(reinterpret_cast<__m512i>(a), reinterpret_cast<__m512i>(b));
        return reinterpret_cast<Shorts<2 * count>>(_mm512_maskz_permutexvar_epi64(0xFF, order, pieces));
    }
#endif
#ifdef __AVX2__
    if constexpr (count == 8)
        return reinterpret_cast<Shorts<2 * count>>(_mm256_permute4x64_epi64(
            _mm256_packs_epi32(reinterpret_cast<__m256i>(a), reinterpret_cast<__m256i>(b)), 0xD8));
#endif
    if constexpr (count == 4)
        return reinterpret_cast<Shorts<2 * count>>(
            _mm_packs_epi32(reinterpret_cast<__m128i>(a), reinterpret_cast<__m128i>(b)));
}

} // namespace
