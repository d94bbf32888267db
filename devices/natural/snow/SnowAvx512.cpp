// The snow pass on AVX-512: sixteen samples at a time, masks in mask registers.

#include <immintrin.h>

#include <cstdint>

#include "devices/natural/snow/SnowPaths.h"

namespace basekit::snow {
namespace {

struct Avx512Lanes {
    static constexpr int kLanes = 16;
    using V = __m512;
    using M = __mmask16;
    BASEKIT_TARGET_AVX512 static V Load(const float* p) { return _mm512_loadu_ps(p); }
    BASEKIT_TARGET_AVX512 static void Store(float* p, V v) { _mm512_storeu_ps(p, v); }
    BASEKIT_TARGET_AVX512 static V Set1(float v) { return _mm512_set1_ps(v); }
    BASEKIT_TARGET_AVX512 static V Add(V a, V b) { return _mm512_add_ps(a, b); }
    BASEKIT_TARGET_AVX512 static V Sub(V a, V b) { return _mm512_sub_ps(a, b); }
    BASEKIT_TARGET_AVX512 static V Mul(V a, V b) { return _mm512_mul_ps(a, b); }
    BASEKIT_TARGET_AVX512 static V Neg(V a) { return _mm512_xor_ps(a, _mm512_set1_ps(-0.0f)); }
    // The all-lanes masked forms say the same as the plain ones; they avoid a
    // spurious uninitialised-value warning in GCC 12's headers.
    BASEKIT_TARGET_AVX512 static V Min(V a, V b) { return _mm512_maskz_min_ps(0xFFFF, a, b); }
    BASEKIT_TARGET_AVX512 static V MaxZero(V a) {
        return _mm512_maskz_max_ps(0xFFFF, _mm512_setzero_ps(), a);
    }
    BASEKIT_TARGET_AVX512 static M Gt(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_GT_OQ); }
    BASEKIT_TARGET_AVX512 static M Lt(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_LT_OQ); }
    BASEKIT_TARGET_AVX512 static V AddWhere(M m, V a, V b) {
        return _mm512_mask_add_ps(a, m, a, b);
    }
    BASEKIT_TARGET_AVX512 static V SubWhere(M m, V a, V b) {
        return _mm512_mask_sub_ps(a, m, a, b);
    }
};

}  // namespace
}  // namespace basekit::snow

BASEKIT_BEGIN_AVX512
#include "devices/natural/snow/SnowRow.h"
BASEKIT_END_TARGET

namespace basekit::snow {

BASEKIT_TARGET_AVX512 int32_t SnowRowAvx512(const SnowPass& p, int32_t y, int32_t x, int32_t end) {
    return SnowRow<Avx512Lanes>(p, y, x, end);
}

}  // namespace basekit::snow
