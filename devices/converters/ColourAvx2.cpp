// The colour models and the normal encoding on AVX2, eight samples at once.
// Every step is the plain code's IEEE operation in the same order, so the
// bits are the plain path's; branches become blends.

#include <immintrin.h>

#include <cstdint>

#include "devices/converters/ColourPaths.h"
#include "devices/converters/PixelsAvx2.h"
#include "framework/Vectors.h"

namespace basekit::colour {
namespace {

// std::max(a, b) and std::min(a, b), NaN included: maxps/minps hand back
// their second operand when unordered.
BASEKIT_TARGET_AVX2 inline __m256 StdMax(__m256 a, __m256 b) {
    return _mm256_max_ps(b, a);
}
BASEKIT_TARGET_AVX2 inline __m256 StdMin(__m256 a, __m256 b) {
    return _mm256_min_ps(b, a);
}
// std::clamp(v, 0, 1): NaN stays NaN.
BASEKIT_TARGET_AVX2 inline __m256 Clamp01(__m256 v) {
    return _mm256_min_ps(_mm256_set1_ps(1.0f), _mm256_max_ps(_mm256_setzero_ps(), v));
}
BASEKIT_TARGET_AVX2 inline __m256 Eq(__m256 a, __m256 b) {
    return _mm256_cmp_ps(a, b, _CMP_EQ_OQ);
}
// m ? b : a
BASEKIT_TARGET_AVX2 inline __m256 Pick(__m256 m, __m256 a, __m256 b) {
    return _mm256_blendv_ps(a, b, m);
}

}  // namespace

BASEKIT_TARGET_AVX2 int64_t CombineHsbAvx2(const float* h, const float* s, const float* v,
                                           int64_t count, float* rgb) {
    const __m256 one = _mm256_set1_ps(1.0f);
    int64_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const __m256 H = _mm256_loadu_ps(h + i), S = _mm256_loadu_ps(s + i),
                     V = _mm256_loadu_ps(v + i);
        const __m256 sector =
            _mm256_div_ps(_mm256_mul_ps(H, _mm256_set1_ps(359.9f)), _mm256_set1_ps(60.0f));
        const __m256 whole = _mm256_floor_ps(sector);
        const __m256 valid = _mm256_and_ps(_mm256_cmp_ps(whole, _mm256_setzero_ps(), _CMP_GE_OQ),
                                           _mm256_cmp_ps(whole, _mm256_set1_ps(5.0f), _CMP_LE_OQ));
        const __m256 f = _mm256_sub_ps(sector, whole);
        const __m256 p = _mm256_mul_ps(_mm256_sub_ps(one, S), V);
        const __m256 q = _mm256_mul_ps(_mm256_sub_ps(one, _mm256_mul_ps(f, S)), V);
        const __m256 t =
            _mm256_mul_ps(_mm256_sub_ps(one, _mm256_mul_ps(_mm256_sub_ps(one, f), S)), V);
        __m256 is[6];
        for (int k = 0; k < 6; ++k) is[k] = Eq(whole, _mm256_set1_ps(static_cast<float>(k)));
        // Sectors 0..5: (v,t,p) (q,v,p) (p,v,t) (p,q,v) (t,p,v) (v,p,q).
        __m256 r = Pick(is[1], V, q);
        r = Pick(_mm256_or_ps(is[2], is[3]), r, p);
        r = Pick(is[4], r, t);
        __m256 g = Pick(is[0], p, t);
        g = Pick(_mm256_or_ps(is[1], is[2]), g, V);
        g = Pick(is[3], g, q);
        __m256 b = Pick(is[2], p, t);
        b = Pick(_mm256_or_ps(is[3], is[4]), b, V);
        b = Pick(is[5], b, q);
        // Outside the sectors the pixel keeps the values it was given.
        StorePixels(rgb + 3 * i, Pick(valid, H, r), Pick(valid, S, g), Pick(valid, V, b));
    }
    return i;
}

BASEKIT_TARGET_AVX2 int64_t SplitRgbAvx2(const float* rgb, int64_t count, float* r, float* g,
                                         float* b) {
    int64_t i = 0;
    for (; i + 8 <= count; i += 8) {
        __m256 R, G, B;
        LoadPixels(rgb + 3 * i, R, G, B);
        _mm256_storeu_ps(r + i, R);
        _mm256_storeu_ps(g + i, G);
        _mm256_storeu_ps(b + i, B);
    }
    return i;
}

BASEKIT_TARGET_AVX2 int64_t SplitHsbAvx2(const float* rgb, int64_t count, float* h, float* s,
                                         float* v) {
    const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f),
                 sixty = _mm256_set1_ps(60.0f), turn = _mm256_set1_ps(360.0f);
    int64_t i = 0;
    for (; i + 8 <= count; i += 8) {
        __m256 r, g, b;
        LoadPixels(rgb + 3 * i, r, g, b);
        const __m256 M = StdMax(StdMax(r, g), b);
        const __m256 m = StdMin(StdMin(r, g), b);
        const __m256 grey = _mm256_or_ps(Eq(m, M), Eq(M, zero));
        const __m256 d = _mm256_sub_ps(M, m);
        const __m256 isR = Eq(M, r);
        const __m256 isG = _mm256_andnot_ps(isR, Eq(M, g));
        const __m256 isB = _mm256_andnot_ps(_mm256_or_ps(isR, isG), Eq(M, b));
        // One division for the branch each lane takes: its numerator and
        // its offset (none for red, where +0 and -0 stay as they are) first.
        const __m256 num =
            Pick(isR, Pick(isG, _mm256_sub_ps(r, g), _mm256_sub_ps(b, r)), _mm256_sub_ps(g, b));
        const __m256 t = _mm256_mul_ps(_mm256_div_ps(num, d), sixty);
        const __m256 shifted = Pick(isG, _mm256_add_ps(t, _mm256_set1_ps(240.0f)),
                                    _mm256_add_ps(t, _mm256_set1_ps(120.0f)));
        __m256 turns = _mm256_div_ps(Pick(isR, shifted, t), turn);
        turns = Pick(_mm256_and_ps(isR, _mm256_cmp_ps(g, b, _CMP_LT_OQ)), turns,
                     _mm256_add_ps(turns, one));
        const __m256 found = _mm256_or_ps(isR, _mm256_or_ps(isG, isB));
        __m256 hue = Pick(found, zero, turns);
        __m256 sat = Pick(found, zero, _mm256_sub_ps(one, _mm256_div_ps(m, M)));
        __m256 val = Pick(found, zero, M);
        hue = Pick(grey, hue, zero);
        sat = Pick(grey, sat, zero);
        val = Pick(grey, val, M);
        _mm256_storeu_ps(h + i, hue);
        _mm256_storeu_ps(s + i, sat);
        _mm256_storeu_ps(v + i, val);
    }
    return i;
}

BASEKIT_TARGET_AVX2 int32_t EncodeNormalsAvx2(const float* gx, const float* gy, int32_t count,
                                              float halfX, float halfY, float* rgb) {
    const __m256 half = _mm256_set1_ps(0.5f);
    const __m256 hx = _mm256_set1_ps(halfX), hy = _mm256_set1_ps(halfY);
    int32_t x = 0;
    for (; x + 8 <= count; x += 8) {
        __m256 X, Y, Z;
        SlopeNormal8(_mm256_loadu_ps(gx + x), _mm256_loadu_ps(gy + x), X, Y, Z);
        const __m256 r = Clamp01(_mm256_add_ps(_mm256_mul_ps(hx, X), half));
        const __m256 g = Clamp01(_mm256_add_ps(_mm256_mul_ps(hy, Y), half));
        const __m256 b = Clamp01(_mm256_add_ps(_mm256_mul_ps(half, Z), half));
        StorePixels(rgb + 3 * x, r, g, b);
    }
    return x;
}

}  // namespace basekit::colour
