// Float vectors of each path's width under one set of names, for kernels
// written once as a template over the width. Every function carries its
// path's target, so a template defined between that path's BEGIN and END
// lines inlines them. Loads and stores are unaligned: on aligned addresses
// they cost the same as the aligned forms.
#pragma once

#include "framework/Terrain.h"
#include "framework/VectorDispatch.h"

#if defined(BASEKIT_HAVE_X86_VECTORS)
#include <immintrin.h>

#include <cfloat>

namespace basekit {

struct Floats8 {
    using Vec = __m256;
    static constexpr int kLanes = 8;
    BASEKIT_TARGET_AVX2 static Vec Load(const float* p) { return _mm256_loadu_ps(p); }
    BASEKIT_TARGET_AVX2 static void Store(float* p, Vec v) { _mm256_storeu_ps(p, v); }
    BASEKIT_TARGET_AVX2 static Vec Set1(float v) { return _mm256_set1_ps(v); }
    BASEKIT_TARGET_AVX2 static Vec Add(Vec a, Vec b) { return _mm256_add_ps(a, b); }
    BASEKIT_TARGET_AVX2 static Vec Mul(Vec a, Vec b) { return _mm256_mul_ps(a, b); }
};

struct Floats16 {
    using Vec = __m512;
    static constexpr int kLanes = 16;
    BASEKIT_TARGET_AVX512 static Vec Load(const float* p) { return _mm512_loadu_ps(p); }
    BASEKIT_TARGET_AVX512 static void Store(float* p, Vec v) { _mm512_storeu_ps(p, v); }
    BASEKIT_TARGET_AVX512 static Vec Set1(float v) { return _mm512_set1_ps(v); }
    BASEKIT_TARGET_AVX512 static Vec Add(Vec a, Vec b) { return _mm512_add_ps(a, b); }
    BASEKIT_TARGET_AVX512 static Vec Mul(Vec a, Vec b) { return _mm512_mul_ps(a, b); }
};

// Orogen::SlopeNormal of eight slopes, the same bits; the steep form only
// where a lane needs it. maxps and minps hand back their second operand when
// unordered, as std::max and std::min do their first: hence the operand order.
BASEKIT_TARGET_AVX2 inline void SlopeNormal8(__m256 gx, __m256 gy, __m256& nx, __m256& ny,
                                             __m256& nz) {
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 magnitude = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
    const __m256 ax = _mm256_and_ps(gx, magnitude), ay = _mm256_and_ps(gy, magnitude);
    const __m256 steep = _mm256_set1_ps(Orogen::kSteepSlope);
    const __m256 plain =
        _mm256_and_ps(_mm256_cmp_ps(ax, steep, _CMP_LE_OQ), _mm256_cmp_ps(ay, steep, _CMP_LE_OQ));
    const __m256 length = _mm256_sqrt_ps(
        _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(gx, gx), _mm256_mul_ps(gy, gy)), one));
    nx = _mm256_div_ps(gx, length);
    ny = _mm256_div_ps(gy, length);
    nz = _mm256_div_ps(one, length);
    if (_mm256_movemask_ps(plain) == 0xff) return;
    const __m256 most = _mm256_set1_ps(FLT_MAX), least = _mm256_set1_ps(-FLT_MAX);
    const __m256 cx = _mm256_min_ps(most, _mm256_max_ps(least, gx));
    const __m256 cy = _mm256_min_ps(most, _mm256_max_ps(least, gy));
    const __m256 scale = _mm256_max_ps(_mm256_and_ps(cy, magnitude), _mm256_and_ps(cx, magnitude));
    const __m256 x = _mm256_div_ps(cx, scale), y = _mm256_div_ps(cy, scale);
    const __m256 z = _mm256_div_ps(one, scale);
    const __m256 scaled = _mm256_sqrt_ps(_mm256_add_ps(
        _mm256_add_ps(_mm256_mul_ps(x, x), _mm256_mul_ps(y, y)), _mm256_mul_ps(z, z)));
    nx = _mm256_blendv_ps(_mm256_div_ps(x, scaled), nx, plain);
    ny = _mm256_blendv_ps(_mm256_div_ps(y, scaled), ny, plain);
    nz = _mm256_blendv_ps(_mm256_div_ps(z, scaled), nz, plain);
}

}  // namespace basekit
#endif
