// The snow pass on AVX2: eight samples at a time, masks as blends.

#include <immintrin.h>

#include <cstdint>

#include "devices/natural/snow/SnowPaths.h"

namespace basekit::snow {
namespace {

struct Avx2Lanes {
    static constexpr int kLanes = 8;
    using V = __m256;
    using M = __m256;
    BASEKIT_TARGET_AVX2 static V Load(const float* p) { return _mm256_loadu_ps(p); }
    BASEKIT_TARGET_AVX2 static void Store(float* p, V v) { _mm256_storeu_ps(p, v); }
    BASEKIT_TARGET_AVX2 static V Set1(float v) { return _mm256_set1_ps(v); }
    BASEKIT_TARGET_AVX2 static V Add(V a, V b) { return _mm256_add_ps(a, b); }
    BASEKIT_TARGET_AVX2 static V Sub(V a, V b) { return _mm256_sub_ps(a, b); }
    BASEKIT_TARGET_AVX2 static V Mul(V a, V b) { return _mm256_mul_ps(a, b); }
    BASEKIT_TARGET_AVX2 static V Neg(V a) { return _mm256_xor_ps(a, _mm256_set1_ps(-0.0f)); }
    BASEKIT_TARGET_AVX2 static V Min(V a, V b) { return _mm256_min_ps(a, b); }
    BASEKIT_TARGET_AVX2 static V MaxZero(V a) { return _mm256_max_ps(_mm256_setzero_ps(), a); }
    BASEKIT_TARGET_AVX2 static M Gt(V a, V b) { return _mm256_cmp_ps(a, b, _CMP_GT_OQ); }
    BASEKIT_TARGET_AVX2 static M Lt(V a, V b) { return _mm256_cmp_ps(a, b, _CMP_LT_OQ); }
    BASEKIT_TARGET_AVX2 static V AddWhere(M m, V a, V b) {
        return _mm256_blendv_ps(a, _mm256_add_ps(a, b), m);
    }
    BASEKIT_TARGET_AVX2 static V SubWhere(M m, V a, V b) {
        return _mm256_blendv_ps(a, _mm256_sub_ps(a, b), m);
    }
};

}  // namespace
}  // namespace basekit::snow

BASEKIT_BEGIN_AVX2
#include "devices/natural/snow/SnowRow.h"
BASEKIT_END_TARGET

namespace basekit::snow {

BASEKIT_TARGET_AVX2 int32_t SnowRowAvx2(const SnowPass& p, int32_t y, int32_t x, int32_t end) {
    return SnowRow<Avx2Lanes>(p, y, x, end);
}

}  // namespace basekit::snow
