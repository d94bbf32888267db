// The cellular search on AVX-512: eight samples at once with mask registers,
// and, on this width only, short runs searched through flat point lists, two
// runs side by side.

#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "devices/generators/cellular/CellularShared.h"
#include "framework/VectorDispatch.h"

namespace basekit::cellular {
namespace {

// The zero-masked forms of max, min, sqrt and the conversions say the same as
// the plain ones; they avoid a spurious uninitialised-value warning in GCC 12's
// headers.
struct Avx512Lanes {
    static constexpr int kWidth = 8;
    using D = __m512d;
    using I = __m256i;
    using M = __mmask8;
    using Ids = __m256i;
    using IdT = uint32_t;

    BASEKIT_TARGET_AVX512 static D Set(double v) { return _mm512_set1_pd(v); }
    BASEKIT_TARGET_AVX512 static D Zero() { return _mm512_setzero_pd(); }
    BASEKIT_TARGET_AVX512 static D Load(const double* p) { return _mm512_load_pd(p); }
    BASEKIT_TARGET_AVX512 static D LoadU(const double* p) { return _mm512_loadu_pd(p); }
    BASEKIT_TARGET_AVX512 static void Store(double* p, D v) { _mm512_store_pd(p, v); }
    BASEKIT_TARGET_AVX512 static D Add(D a, D b) { return _mm512_add_pd(a, b); }
    BASEKIT_TARGET_AVX512 static D Sub(D a, D b) { return _mm512_sub_pd(a, b); }
    BASEKIT_TARGET_AVX512 static D Mul(D a, D b) { return _mm512_mul_pd(a, b); }
    BASEKIT_TARGET_AVX512 static D Abs(D a) { return _mm512_abs_pd(a); }
    BASEKIT_TARGET_AVX512 static D Max(D a, D b) { return _mm512_maskz_max_pd(0xFF, a, b); }
    BASEKIT_TARGET_AVX512 static D Min(D a, D b) { return _mm512_maskz_min_pd(0xFF, a, b); }
    BASEKIT_TARGET_AVX512 static D Sqrt(D a) { return _mm512_maskz_sqrt_pd(0xFF, a); }

    BASEKIT_TARGET_AVX512 static M Gt(D a, D b) { return _mm512_cmp_pd_mask(a, b, _CMP_GT_OQ); }
    BASEKIT_TARGET_AVX512 static M Lt(D a, D b) { return _mm512_cmp_pd_mask(a, b, _CMP_LT_OQ); }
    BASEKIT_TARGET_AVX512 static M Ge(D a, D b) { return _mm512_cmp_pd_mask(a, b, _CMP_GE_OQ); }
    BASEKIT_TARGET_AVX512 static M LtAnd(M m, D a, D b) {
        return _mm512_mask_cmp_pd_mask(m, a, b, _CMP_LT_OQ);
    }
    BASEKIT_TARGET_AVX512 static M And(M a, M b) { return static_cast<M>(a & b); }
    BASEKIT_TARGET_AVX512 static M AndNot(M a, M b) { return static_cast<M>(~a & b); }
    BASEKIT_TARGET_AVX512 static M Or(M a, M b) { return static_cast<M>(a | b); }
    BASEKIT_TARGET_AVX512 static bool Any(M m) { return m != 0; }
    BASEKIT_TARGET_AVX512 static M All() { return 0xFF; }
    BASEKIT_TARGET_AVX512 static unsigned Bits(M m) { return m; }
    BASEKIT_TARGET_AVX512 static M FromBits(unsigned bits) { return static_cast<M>(bits); }
    BASEKIT_TARGET_AVX512 static D Blend(M m, D a, D b) { return _mm512_mask_blend_pd(m, a, b); }
    BASEKIT_TARGET_AVX512 static D MinWhere(M m, D a, D b) {
        return _mm512_mask_min_pd(a, m, a, b);
    }

    BASEKIT_TARGET_AVX512 static I SetI(int32_t v) { return _mm256_set1_epi32(v); }
    BASEKIT_TARGET_AVX512 static I AddI(I a, I b) { return _mm256_add_epi32(a, b); }
    BASEKIT_TARGET_AVX512 static I MulI(I a, I b) { return _mm256_mullo_epi32(a, b); }
    BASEKIT_TARGET_AVX512 static I LoadI(const int32_t* p) {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    }
    BASEKIT_TARGET_AVX512 static D ToDouble(I v) { return _mm512_maskz_cvtepi32_pd(0xFF, v); }
    BASEKIT_TARGET_AVX512 static I Floor(D v) {
        const I t = _mm512_maskz_cvttpd_epi32(0xFF, v);
        const M below = _mm512_cmp_pd_mask(v, ToDouble(t), _CMP_LT_OQ);
        return _mm256_mask_sub_epi32(t, below, t, _mm256_set1_epi32(1));
    }
    BASEKIT_TARGET_AVX512 static D UnsignedPlusHalf(I u) {
        return _mm512_add_pd(_mm512_maskz_cvtepu32_pd(0xFF, u), _mm512_set1_pd(0.5));
    }
    BASEKIT_TARGET_AVX512 static I PointCounts(I h, M active) {
        return _mm256_mmask_i32gather_epi32(_mm256_setzero_si256(), active,
                                            _mm256_srli_epi32(h, 24), kPointCount.data(), 4);
    }
    BASEKIT_TARGET_AVX512 static int MaxLane(I n) {
        I most = _mm256_max_epi32(n, _mm256_permute2x128_si256(n, n, 1));
        most = _mm256_max_epi32(most, _mm256_shuffle_epi32(most, _MM_SHUFFLE(1, 0, 3, 2)));
        most = _mm256_max_epi32(most, _mm256_shuffle_epi32(most, _MM_SHUFFLE(2, 3, 0, 1)));
        return _mm256_cvtsi256_si32(most);
    }
    BASEKIT_TARGET_AVX512 static M Above(I n, int i) {
        return _mm256_cmpgt_epi32_mask(n, _mm256_set1_epi32(i));
    }
    BASEKIT_TARGET_AVX512 static unsigned EqualBits(I v, int32_t x) {
        return _mm256_cmpeq_epi32_mask(v, _mm256_set1_epi32(x));
    }

    BASEKIT_TARGET_AVX512 static Ids IdsOf(I r) { return r; }
    BASEKIT_TARGET_AVX512 static Ids BroadcastId(uint32_t id) {
        return _mm256_set1_epi32(static_cast<int32_t>(id));
    }
    BASEKIT_TARGET_AVX512 static Ids NoIds() { return _mm256_setzero_si256(); }
    BASEKIT_TARGET_AVX512 static Ids BlendIds(M m, Ids a, Ids b) {
        return _mm256_mask_blend_epi32(m, a, b);
    }
    BASEKIT_TARGET_AVX512 static Ids LoadIds(const IdT* p) {
        return _mm256_load_si256(reinterpret_cast<const __m256i*>(p));
    }
    BASEKIT_TARGET_AVX512 static void StoreIds(IdT* p, Ids v) {
        _mm256_store_si256(reinterpret_cast<__m256i*>(p), v);
    }
    static IdT* RunIds(RunLanes& run, int k) { return run.id32[k]; }
};

}  // namespace
}  // namespace basekit::cellular

BASEKIT_BEGIN_AVX512
#include "devices/generators/cellular/CellularLanes.h"

namespace basekit::cellular {
namespace {

using L = Avx512Lanes;

// The flat list of a run's cubes for lanes whose x is X: each lane's bound
// per cube, and each point's box index, cube and first-of-cube flag.
// Returns the number of points.
int FillFlatPoints(const CubeBox& box, FlatPoints& flat, __m512d X, double yv, double zv,
                   int32_t ix, int32_t iy, int32_t iz, int32_t home) {
    const double fy = yv - static_cast<double>(iy), fz = zv - static_cast<double>(iz);
    const double ty[3] = {fy * fy, 0.0, (1.0 - fy) * (1.0 - fy)};
    const double tz[3] = {fz * fz, 0.0, (1.0 - fz) * (1.0 - fz)};
    __m512d tx[3];
    FaceTerms<L>(_mm512_sub_pd(X, _mm512_set1_pd(static_cast<double>(ix))), tx);
    const __m256i step = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    int n = 0;
    for (int c = 0; c < 27; ++c) {
        const int32_t cube = home + box.delta[c];
        const CubeOffset& o = kCubeOrder[c];
        // The home cube is always searched: no fourth distance is below -inf.
        const __m512d bound =
            c == 0 ? _mm512_set1_pd(-INFINITY)
                   : _mm512_add_pd(_mm512_add_pd(tx[o.dx + 1], _mm512_set1_pd(ty[o.dy + 1])),
                                   _mm512_set1_pd(tz[o.dz + 1]));
        _mm512_store_pd(flat.bound[c], bound);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(flat.at + n),
                            _mm256_add_epi32(_mm256_set1_epi32(cube * kMaxPoints), step));
        const uint64_t cubes = 0x0101010101010101ull * static_cast<uint64_t>(c);
        const uint64_t fresh = 0xFF;
        std::memcpy(flat.cube + n, &cubes, 8);
        std::memcpy(flat.fresh + n, &fresh, 8);
        n += box.count[cube];
    }
    return n;
}

// The search state of one set of lanes in a flat search.
struct FlatLanes {
    Nearest<L> s;
    __m512d X;
    __m512d start3;  // f[3] as it stood at the current cube's first point
};

FlatLanes StartFlatLanes(__m512d X) {
    return {StartNearest<L>(), X, _mm512_set1_pd(kFar)};
}

void StoreFlatLanes(const FlatLanes& a, RunLanes& run, int lane0) {
    for (int k = 0; k < 4; ++k) {
        L::Store(run.f[k] + lane0, a.s.f[k]);
        L::StoreIds(run.id32[k] + lane0, a.s.id[k]);
    }
}

// Point j of the flat list for one set of lanes. A lane takes a cube's points
// when its fourth distance at the cube's first point is above its bound: the
// decision the cube-by-cube search makes, without a branch per cube.
template <CellDistance Dist, int kIds>
inline void VisitFlatPoint(const CubeBox& box, const FlatPoints& flat, int j, FlatLanes& a) {
    const size_t at = static_cast<size_t>(flat.at[j]);
    a.start3 = _mm512_mask_mov_pd(a.start3, flat.fresh[j], a.s.f[3]);
    const __mmask8 m =
        _mm512_cmp_pd_mask(a.start3, _mm512_load_pd(flat.bound[flat.cube[j]]), _CMP_GT_OQ);
    InsertEvery<L, kIds>(a.s, RowDistance<L, Dist>(box, at, a.X), box.id[at], m);
}

// Two short runs of one row, lanes 0..7 and 8..15 of `run`, each with its own
// home cube. They go through their flat lists side by side: one run alone is
// a chain of dependent min/max steps, two keep the vector units busy.
template <CellDistance Dist, int kIds>
void SearchShortRuns(const CubeBox& box, RunLanes& run, FlatPoints flat[2], double yv, double zv,
                     const int32_t ix[2], int32_t iy, int32_t iz, const int32_t home[2]) {
    const __m512d xa = L::Load(run.x), xb = L::Load(run.x + 8);
    const int na = FillFlatPoints(box, flat[0], xa, yv, zv, ix[0], iy, iz, home[0]);
    const int nb = FillFlatPoints(box, flat[1], xb, yv, zv, ix[1], iy, iz, home[1]);
    // Started after the lists are filled, so that no state waits across the calls.
    FlatLanes a = StartFlatLanes(xa), b = StartFlatLanes(xb);
    const int both = na < nb ? na : nb;
    for (int j = 0; j < both; ++j) {
        VisitFlatPoint<Dist, kIds>(box, flat[0], j, a);
        VisitFlatPoint<Dist, kIds>(box, flat[1], j, b);
    }
    for (int j = both; j < na; ++j) VisitFlatPoint<Dist, kIds>(box, flat[0], j, a);
    for (int j = both; j < nb; ++j) VisitFlatPoint<Dist, kIds>(box, flat[1], j, b);
    StoreFlatLanes(a, run, 0);
    StoreFlatLanes(b, run, 8);
}

// One short run, lanes 0..7 of `run`.
template <CellDistance Dist, int kIds>
void SearchShortRun(const CubeBox& box, RunLanes& run, FlatPoints& flat, double yv, double zv,
                    int32_t ix, int32_t iy, int32_t iz, int32_t home) {
    const __m512d xa = L::Load(run.x);
    const int n = FillFlatPoints(box, flat, xa, yv, zv, ix, iy, iz, home);
    FlatLanes a = StartFlatLanes(xa);
    for (int j = 0; j < n; ++j) VisitFlatPoint<Dist, kIds>(box, flat, j, a);
    StoreFlatLanes(a, run, 0);
}

}  // namespace
}  // namespace basekit::cellular
BASEKIT_END_TARGET

namespace basekit::cellular {
namespace {

struct Avx512Tables {
    template <CellDistance Dist, int kIds>
    static LaneKernels Table() {
        LaneKernels k = CommonKernels<Avx512Lanes, Dist, kIds>();
        k.searchShortRun = &SearchShortRun<Dist, kIds>;
        k.searchShortRuns = &SearchShortRuns<Dist, kIds>;
        return k;
    }
};

}  // namespace

LaneKernels Avx512Kernels(CellDistance distance, int kIds) {
    return KernelsFor<Avx512Tables>(distance, kIds);
}

}  // namespace basekit::cellular
