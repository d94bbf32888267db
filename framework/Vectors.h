// Float vectors of each path's width under one set of names, for kernels
// written once as a template over the width. Every function carries its
// path's target, so a template defined between that path's BEGIN and END
// lines inlines them. Loads and stores are unaligned: on aligned addresses
// they cost the same as the aligned forms.
#pragma once

#include "framework/VectorDispatch.h"

#if defined(BASEKIT_HAVE_X86_VECTORS)
#include <immintrin.h>

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

}  // namespace basekit
#endif
