// The cellular search on AVX2: four samples at once, one per 64-bit lane; the
// integer work runs in four 32-bit lanes.

#include <immintrin.h>

#include <cstdint>

#include "devices/generators/cellular/CellularShared.h"
#include "framework/VectorDispatch.h"

namespace basekit::cellular {
namespace {

struct Avx2Lanes {
    static constexpr int kWidth = 4;
    using D = __m256d;
    using I = __m128i;
    using M = __m256d;    // all-ones 64-bit lanes
    using Ids = __m256i;  // 64-bit lanes holding 32-bit identifiers, to blend like doubles
    using IdT = uint64_t;

    BASEKIT_TARGET_AVX2 static D Set(double v) { return _mm256_set1_pd(v); }
    BASEKIT_TARGET_AVX2 static D Zero() { return _mm256_setzero_pd(); }
    BASEKIT_TARGET_AVX2 static D Load(const double* p) { return _mm256_load_pd(p); }
    BASEKIT_TARGET_AVX2 static D LoadU(const double* p) { return _mm256_loadu_pd(p); }
    BASEKIT_TARGET_AVX2 static void Store(double* p, D v) { _mm256_store_pd(p, v); }
    BASEKIT_TARGET_AVX2 static D Add(D a, D b) { return _mm256_add_pd(a, b); }
    BASEKIT_TARGET_AVX2 static D Sub(D a, D b) { return _mm256_sub_pd(a, b); }
    BASEKIT_TARGET_AVX2 static D Mul(D a, D b) { return _mm256_mul_pd(a, b); }
    BASEKIT_TARGET_AVX2 static D Abs(D a) { return _mm256_andnot_pd(_mm256_set1_pd(-0.0), a); }
    BASEKIT_TARGET_AVX2 static D Max(D a, D b) { return _mm256_max_pd(a, b); }
    BASEKIT_TARGET_AVX2 static D Min(D a, D b) { return _mm256_min_pd(a, b); }
    BASEKIT_TARGET_AVX2 static D Sqrt(D a) { return _mm256_sqrt_pd(a); }

    BASEKIT_TARGET_AVX2 static M Gt(D a, D b) { return _mm256_cmp_pd(a, b, _CMP_GT_OQ); }
    BASEKIT_TARGET_AVX2 static M Lt(D a, D b) { return _mm256_cmp_pd(a, b, _CMP_LT_OQ); }
    BASEKIT_TARGET_AVX2 static M Ge(D a, D b) { return _mm256_cmp_pd(a, b, _CMP_GE_OQ); }
    BASEKIT_TARGET_AVX2 static M LtAnd(M m, D a, D b) { return _mm256_and_pd(m, Lt(a, b)); }
    BASEKIT_TARGET_AVX2 static M And(M a, M b) { return _mm256_and_pd(a, b); }
    BASEKIT_TARGET_AVX2 static M AndNot(M a, M b) { return _mm256_andnot_pd(a, b); }
    BASEKIT_TARGET_AVX2 static M Or(M a, M b) { return _mm256_or_pd(a, b); }
    BASEKIT_TARGET_AVX2 static bool Any(M m) { return _mm256_movemask_pd(m) != 0; }
    BASEKIT_TARGET_AVX2 static M All() { return _mm256_castsi256_pd(_mm256_set1_epi64x(-1)); }
    BASEKIT_TARGET_AVX2 static unsigned Bits(M m) {
        return static_cast<unsigned>(_mm256_movemask_pd(m));
    }
    BASEKIT_TARGET_AVX2 static M FromBits(unsigned bits) {
        return _mm256_castsi256_pd(_mm256_cmpgt_epi64(
            _mm256_and_si256(_mm256_set1_epi64x(bits), _mm256_setr_epi64x(1, 2, 4, 8)),
            _mm256_setzero_si256()));
    }
    BASEKIT_TARGET_AVX2 static D Blend(M m, D a, D b) { return _mm256_blendv_pd(a, b, m); }
    BASEKIT_TARGET_AVX2 static D MinWhere(M m, D a, D b) {
        return _mm256_blendv_pd(a, _mm256_min_pd(a, b), m);
    }

    BASEKIT_TARGET_AVX2 static I SetI(int32_t v) { return _mm_set1_epi32(v); }
    BASEKIT_TARGET_AVX2 static I AddI(I a, I b) { return _mm_add_epi32(a, b); }
    BASEKIT_TARGET_AVX2 static I MulI(I a, I b) { return _mm_mullo_epi32(a, b); }
    BASEKIT_TARGET_AVX2 static I LoadI(const int32_t* p) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    }
    // The 64-bit lanes of a mask as 32-bit lanes.
    BASEKIT_TARGET_AVX2 static I Narrow(M m) {
        const __m256 f = _mm256_castpd_ps(m);
        return _mm_castps_si128(_mm_shuffle_ps(
            _mm256_castps256_ps128(f), _mm256_extractf128_ps(f, 1), _MM_SHUFFLE(2, 0, 2, 0)));
    }
    BASEKIT_TARGET_AVX2 static I Floor(D v) {
        const I t = _mm256_cvttpd_epi32(v);
        return _mm_add_epi32(t, Narrow(_mm256_cmp_pd(v, _mm256_cvtepi32_pd(t), _CMP_LT_OQ)));
    }
    BASEKIT_TARGET_AVX2 static D ToDouble(I v) { return _mm256_cvtepi32_pd(v); }
    // (double)u + 0.5 for unsigned 32-bit u, exactly.
    BASEKIT_TARGET_AVX2 static D UnsignedPlusHalf(I u) {
        const I flipped = _mm_xor_si128(u, _mm_set1_epi32(INT32_MIN));
        return _mm256_add_pd(_mm256_cvtepi32_pd(flipped), _mm256_set1_pd(2147483648.5));
    }
    BASEKIT_TARGET_AVX2 static I PointCounts(I h, M active) {
        const I n = _mm_i32gather_epi32(kPointCount.data(), _mm_srli_epi32(h, 24), 4);
        return _mm_and_si128(n, Narrow(active));
    }
    BASEKIT_TARGET_AVX2 static int MaxLane(I n) {
        I most = _mm_max_epi32(n, _mm_shuffle_epi32(n, _MM_SHUFFLE(1, 0, 3, 2)));
        most = _mm_max_epi32(most, _mm_shuffle_epi32(most, _MM_SHUFFLE(2, 3, 0, 1)));
        return _mm_cvtsi128_si32(most);
    }
    BASEKIT_TARGET_AVX2 static M Above(I n, int i) {
        return _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm_cmpgt_epi32(n, _mm_set1_epi32(i))));
    }
    BASEKIT_TARGET_AVX2 static unsigned EqualBits(I v, int32_t x) {
        return static_cast<unsigned>(
            _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(v, _mm_set1_epi32(x)))));
    }

    BASEKIT_TARGET_AVX2 static Ids IdsOf(I r) { return _mm256_cvtepu32_epi64(r); }
    BASEKIT_TARGET_AVX2 static Ids BroadcastId(uint32_t id) { return _mm256_set1_epi64x(id); }
    BASEKIT_TARGET_AVX2 static Ids NoIds() { return _mm256_setzero_si256(); }
    BASEKIT_TARGET_AVX2 static Ids BlendIds(M m, Ids a, Ids b) {
        return _mm256_castpd_si256(
            _mm256_blendv_pd(_mm256_castsi256_pd(a), _mm256_castsi256_pd(b), m));
    }
    BASEKIT_TARGET_AVX2 static Ids LoadIds(const IdT* p) {
        return _mm256_load_si256(reinterpret_cast<const __m256i*>(p));
    }
    BASEKIT_TARGET_AVX2 static void StoreIds(IdT* p, Ids v) {
        _mm256_store_si256(reinterpret_cast<__m256i*>(p), v);
    }
    static IdT* RunIds(RunLanes& run, int k) { return run.id64[k]; }
};

}  // namespace
}  // namespace basekit::cellular

BASEKIT_BEGIN_AVX2
#include "devices/generators/cellular/CellularLanes.h"
BASEKIT_END_TARGET

namespace basekit::cellular {
namespace {

struct Avx2Tables {
    template <CellDistance Dist, int kIds>
    static LaneKernels Table() {
        return CommonKernels<Avx2Lanes, Dist, kIds>();
    }
};

}  // namespace

LaneKernels Avx2Kernels(CellDistance distance, int kIds) {
    return KernelsFor<Avx2Tables>(distance, kIds);
}

}  // namespace basekit::cellular
