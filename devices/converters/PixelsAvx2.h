// Interleaved RGB pixels to and from three AVX2 vectors of eight lanes, for
// the kernels that read or write bitmaps eight points at a time, and the
// per-lane forms of framework/Ramps.h.
#pragma once

#include "framework/VectorDispatch.h"

#if defined(BASEKIT_HAVE_X86_VECTORS)
#include <immintrin.h>

namespace basekit::colour {

// Eight interleaved pixels are three vectors: lanes 0, 3, 6 of the first
// hold red, of the second blue, of the third green (1, 4, 7: green, red,
// blue; 2, 5: blue, green, red). Each channel is that blend of the three,
// permuted into order.
BASEKIT_TARGET_AVX2 inline __m256 Take(__m256 at036, __m256 at147, __m256 at25) {
    return _mm256_blend_ps(_mm256_blend_ps(at036, at147, 0x92), at25, 0x24);
}

BASEKIT_TARGET_AVX2 inline void StorePixels(float* rgb, __m256 r, __m256 g, __m256 b) {
    const __m256 vr = _mm256_permutevar8x32_ps(r, _mm256_setr_epi32(0, 3, 6, 1, 4, 7, 2, 5));
    const __m256 vg = _mm256_permutevar8x32_ps(g, _mm256_setr_epi32(5, 0, 3, 6, 1, 4, 7, 2));
    const __m256 vb = _mm256_permutevar8x32_ps(b, _mm256_setr_epi32(2, 5, 0, 3, 6, 1, 4, 7));
    _mm256_storeu_ps(rgb, Take(vr, vg, vb));
    _mm256_storeu_ps(rgb + 8, Take(vb, vr, vg));
    _mm256_storeu_ps(rgb + 16, Take(vg, vb, vr));
}

BASEKIT_TARGET_AVX2 inline void LoadPixels(const float* rgb, __m256& r, __m256& g, __m256& b) {
    const __m256 p0 = _mm256_loadu_ps(rgb), p1 = _mm256_loadu_ps(rgb + 8),
                 p2 = _mm256_loadu_ps(rgb + 16);
    r = _mm256_permutevar8x32_ps(Take(p0, p1, p2), _mm256_setr_epi32(0, 3, 6, 1, 4, 7, 2, 5));
    g = _mm256_permutevar8x32_ps(Take(p2, p0, p1), _mm256_setr_epi32(1, 4, 7, 2, 5, 0, 3, 6));
    b = _mm256_permutevar8x32_ps(Take(p1, p2, p0), _mm256_setr_epi32(2, 5, 0, 3, 6, 1, 4, 7));
}

// ClampHeight on eight lanes: NaN to 1, then into 0..1. maxps and minps
// keep a NaN in their second operand for the last blend to replace.
BASEKIT_TARGET_AVX2 inline __m256 ClampHeights8(__m256 v) {
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 clamped = _mm256_min_ps(one, _mm256_max_ps(_mm256_setzero_ps(), v));
    return _mm256_blendv_ps(clamped, one, _mm256_cmp_ps(v, v, _CMP_UNORD_Q));
}

// RampBetween on eight lanes for one lo and hi: a NaN stays NaN on the
// rising ramp and gives 0 on the step.
BASEKIT_TARGET_AVX2 inline __m256 RampBetween8(__m256 v, float lo, float hi) {
    const __m256 one = _mm256_set1_ps(1.0f), low = _mm256_set1_ps(lo);
    if (!(hi > lo)) return _mm256_and_ps(one, _mm256_cmp_ps(v, low, _CMP_GE_OQ));
    const __m256 t = _mm256_div_ps(_mm256_sub_ps(v, low), _mm256_set1_ps(hi - lo));
    return _mm256_min_ps(one, _mm256_max_ps(_mm256_setzero_ps(), t));
}

}  // namespace basekit::colour
#endif
