// The coast on AVX2: eight samples at a time, masks as blends.

#include <immintrin.h>

#include <cstdint>

#include "devices/natural/coast/CoastPaths.h"

namespace basekit::coast {
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
    BASEKIT_TARGET_AVX2 static V Div(V a, V b) { return _mm256_div_ps(a, b); }
    BASEKIT_TARGET_AVX2 static V Neg(V a) { return _mm256_xor_ps(a, _mm256_set1_ps(-0.0f)); }
    BASEKIT_TARGET_AVX2 static V Min(V a, V b) { return _mm256_min_ps(a, b); }
    BASEKIT_TARGET_AVX2 static M Gt(V a, V b) { return _mm256_cmp_ps(a, b, _CMP_GT_OQ); }
    BASEKIT_TARGET_AVX2 static M Ge(V a, V b) { return _mm256_cmp_ps(a, b, _CMP_GE_OQ); }
    BASEKIT_TARGET_AVX2 static M Lt(V a, V b) { return _mm256_cmp_ps(a, b, _CMP_LT_OQ); }
    BASEKIT_TARGET_AVX2 static M And(M a, M b) { return _mm256_and_ps(a, b); }
    BASEKIT_TARGET_AVX2 static V Blend(M m, V a, V b) { return _mm256_blendv_ps(a, b, m); }
    BASEKIT_TARGET_AVX2 static void Append(Waiting& w, M m, int32_t x, V d, V q) {
        int bits = _mm256_movemask_ps(m);
        if (bits == 0) return;
        float ds[kLanes], qs[kLanes];
        _mm256_storeu_ps(ds, d);
        _mm256_storeu_ps(qs, q);
        for (; bits != 0; bits &= bits - 1) {
            const int lane = __builtin_ctz(static_cast<unsigned>(bits));
            w.at[w.count] = x + lane;
            w.drop[w.count] = ds[lane];
            w.share[w.count++] = qs[lane];
        }
    }
};

}  // namespace
}  // namespace basekit::coast

BASEKIT_BEGIN_AVX2
#include "devices/natural/coast/CoastRow.h"
BASEKIT_END_TARGET

namespace basekit::coast {

BASEKIT_TARGET_AVX2 int32_t ErodeVectorsAvx2(const CoastSetup& s, float* heights,
                                             const float* hardness, float* water, float* beach,
                                             int32_t x, int32_t end, Waiting& waiting) {
    return ErodeVectors<Avx2Lanes>(s, heights, hardness, water, beach, x, end, waiting);
}

}  // namespace basekit::coast
