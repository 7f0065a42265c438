#pragma once

#include <cstddef>
#include <cstdint>

#ifdef __x86_64__
#include <immintrin.h>
#endif

// Loops with the fewest instructions possible for a vector of 16 samples, for memory aligned to a vector and
// whole vectors only: a lower limit, not a peer. The conversion to 16 bits does not handle NaN and samples
// above 65536 as required.

#ifdef __x86_64__
#define BARE_LOOP [[gnu::noinline, gnu::target("avx512f,avx512bw,avx512dq,avx512vl")]]

inline bool hasBareLoops()
{
    return __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq");
}

BARE_LOOP inline void bareMix(const float* from, float* to, size_t count)
{
    const __m512 high = _mm512_set1_ps(1), low = _mm512_set1_ps(-1);
    for (size_t i = 0; i < count; i += 16) {
        const __m512 sum = _mm512_add_ps(_mm512_load_ps(from + i), _mm512_load_ps(to + i));
        _mm512_store_ps(to + i, _mm512_maskz_max_ps(0xFFFF, low, _mm512_maskz_min_ps(0xFFFF, high, sum)));
    }
}

BARE_LOOP inline void bareToInt16(const float* from, int16_t* to, size_t count)
{
    const __m512 below = _mm512_set1_ps(32768), above = _mm512_set1_ps(32767);
    const __m512i half = _mm512_castps_si512(_mm512_set1_ps(0.5F)), sign = _mm512_set1_epi32(INT32_MIN);
    for (size_t i = 0; i < count; i += 16) {
        const __m512 x = _mm512_load_ps(from + i);
        const __m512i bits = _mm512_castps_si512(x);
        const __m512 scale = _mm512_mask_blend_ps(_mm512_movepi32_mask(bits), above, below);
        const __m512i signedHalf = _mm512_ternarylogic_epi32(bits, half, sign, 0xEC);
        const __m512 sum = _mm512_add_ps(_mm512_mul_ps(x, scale), _mm512_castsi512_ps(signedHalf));
        const __m512i whole = _mm512_maskz_cvttps_epi32(0xFFFF, sum);
        _mm256_store_si256(reinterpret_cast<__m256i*>(to + i), _mm512_maskz_cvtsepi32_epi16(0xFFFF, whole));
    }
}

BARE_LOOP inline void bareFromInt16(const int16_t* from, float* to, size_t count)
{
    const __m512 below = _mm512_set1_ps(3.0517578e-5F), above = _mm512_set1_ps(3.051851e-5F);
    for (size_t i = 0; i < count; i += 16) {
        const __m256i shorts = _mm256_load_si256(reinterpret_cast<const __m256i*>(from + i));
        const __m512i whole = _mm512_maskz_cvtepi16_epi32(0xFFFF, shorts);
        const __m512 scale = _mm512_mask_blend_ps(_mm512_movepi32_mask(whole), above, below);
        _mm512_store_ps(to + i, _mm512_mul_ps(_mm512_maskz_cvtepi32_ps(0xFFFF, whole), scale));
    }
}

#undef BARE_LOOP
#else
inline bool hasBareLoops()
{
    return false;
}
inline void bareMix(const float* /*from*/, float* /*to*/, size_t /*count*/) {}
inline void bareToInt16(const float* /*from*/, int16_t* /*to*/, size_t /*count*/) {}
inline void bareFromInt16(const int16_t* /*from*/, float* /*to*/, size_t /*count*/) {}
#endif
