// The coast on AVX-512: sixteen samples at a time, masks in mask registers,
// the waiting samples compressed onto their list.

#include <immintrin.h>

#include <cstdint>

#include "devices/natural/coast/CoastPaths.h"

namespace basekit::coast {
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
    BASEKIT_TARGET_AVX512 static V Div(V a, V b) { return _mm512_div_ps(a, b); }
    BASEKIT_TARGET_AVX512 static V Neg(V a) { return _mm512_xor_ps(a, _mm512_set1_ps(-0.0f)); }
    // The all-lanes masked form says the same as the plain one; it avoids a
    // spurious uninitialised-value warning in GCC 12's headers.
    BASEKIT_TARGET_AVX512 static V Min(V a, V b) { return _mm512_maskz_min_ps(0xFFFF, a, b); }
    BASEKIT_TARGET_AVX512 static M Gt(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_GT_OQ); }
    BASEKIT_TARGET_AVX512 static M Ge(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_GE_OQ); }
    BASEKIT_TARGET_AVX512 static M Lt(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_LT_OQ); }
    BASEKIT_TARGET_AVX512 static M And(M a, M b) { return static_cast<M>(a & b); }
    BASEKIT_TARGET_AVX512 static V Blend(M m, V a, V b) { return _mm512_mask_blend_ps(m, a, b); }
    // Compressed in registers and stored whole (the list has room for a
    // vector past its end): a compressing store to memory is far slower.
    BASEKIT_TARGET_AVX512 static void Append(Waiting& w, M m, int32_t x, V d, V q) {
        if (m == 0) return;
        const int32_t n = w.count;
        const __m512i lanes = _mm512_add_epi32(
            _mm512_set1_epi32(x),
            _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
        _mm512_storeu_si512(w.at + n, _mm512_maskz_compress_epi32(m, lanes));
        _mm512_storeu_ps(w.drop + n, _mm512_maskz_compress_ps(m, d));
        _mm512_storeu_ps(w.share + n, _mm512_maskz_compress_ps(m, q));
        w.count = n + __builtin_popcount(m);
    }
};

}  // namespace
}  // namespace basekit::coast

BASEKIT_BEGIN_AVX512
#include "devices/natural/coast/CoastRow.h"
BASEKIT_END_TARGET

namespace basekit::coast {

BASEKIT_TARGET_AVX512 int32_t ErodeVectorsAvx512(const CoastSetup& s, float* heights,
                                                 const float* hardness, float* water, float* beach,
                                                 int32_t x, int32_t end, Waiting& waiting) {
    return ErodeVectors<Avx512Lanes>(s, heights, hardness, water, beach, x, end, waiting);
}

}  // namespace basekit::coast
