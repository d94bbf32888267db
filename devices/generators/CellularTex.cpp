#include "devices/generators/CellularTex.h"

#include <immintrin.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include "framework/Platform.h"
#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {

// ---------------------------------------------------------------------------
// The device

static const ParamSpec kParameters[] = {
    {"Scale", kParamReal, 1.0, 0.00625, 24.0, 513,
     "The scale of the Voronoi noise in the world."},
    {"Style", kParamChoice, 0, 0, 13, 0,
     "Each style is a unique combination of noises that give a different aspect to the output.",
     {"F1", "F2", "F3", "F4", "F2 - F1", "F3 - F2", "F3 - F1", "F4 - F3", "F4 - F2", "F4 - F1",
      "F1 Cells", "F2 Cells", "F3 Cells", "F4 Cells"}},
    {"Distance Function", kParamChoice, 0, 0, 3, 0,
     "How distances are measured; allows for different looks of the terrain.",
     {"Euclidean", "Manhattan", "Alternate #1", "Alternate #2"}},
    {"Shape", kParamReal, 0.0, -2.0, 2.0, 0,
     "Offset the noise effect. The only effect is to shift the pattern."},
    {"Distortion Enable", kParamBoolean, 0, 0, 1, 0, "Enable the distortion input of this device"},
    {"Distortion Amount", kParamReal, 0.0, 0.0, 1.0, 0,
     "The strength of distortion, determines how far the input is shifted"},
    {"Distortion Direction", kParamInteger, 0, 0, 360, 0,
     "The direction to distort the coordinates"},
    {"Random Seed", kParamInteger, 0, 0, 32767, 2, "Determines the features of the terrain"},
    {"Randomize", kParamAction, 0, 0, 0, 0, "Randomize the seed value"},
};

namespace {

// What the "Randomize" action holds; the host calls it with the device.
bool RandomizeAction(Device* device) { return static_cast<CellularTex*>(device)->Randomize(0); }

void SetRandomizeAction(Device* device) {
    ParamRecord& action =
        device->params.records[static_cast<size_t>(FindParameter(device->params, "Randomize"))];
    action.value.p = reinterpret_cast<void*>(&RandomizeAction);
}

int32_t TickSeed() { return static_cast<int32_t>(GetTickCount() & 0x7FFF); }

}  // namespace

CellularTex::CellularTex() {
    DeclarePorts(false);
    DeclareParameters(this, kParameters);
    GetParameter(this, "Random Seed")->i = TickSeed();
    SetRandomizeAction(this);
}

// The output and its links stay; only the distortion input comes and goes.
void CellularTex::DeclarePorts(bool distortion) {
    if (outputs.empty()) SetPortCount(this, 0, 1, kHeightField);
    if (distortion && inputs.empty()) {
        AddPort(0, 0, kHeightField, 0xFFFFFFFFu);
        inputs[0]->SetName("Distortion Map");
        inputs[0]->role = kRoleOptional;
    } else if (!distortion && !inputs.empty()) {
        RemovePort(0, 0);
    }
}

const char* CellularTex::GetInputName(uint32_t index) {
    return index == 0 ? "Distortion Map" : "Unused";
}

bool CellularTex::Randomize(int32_t value) {
    if (value == 0) value = TickSeed();
    GetParameter(this, "Random Seed")->i = value;
    SettingsChanged();
    return true;
}

bool CellularTex::EditSettings() {
    if (!Device::EditSettings()) return false;
    const bool distortion = ParamBool(this, "Distortion Enable");
    if (distortion && inputs.empty()) {
        DeclarePorts(true);
    } else if (!distortion && !inputs.empty()) {
        DeclarePorts(false);
    }
    SettingsChanged();
    return true;
}

void CellularTex::CopyFrom(Device* other) {
    Device::CopyFrom(other);
    if (!other || other == this) return;
    DeclarePorts(!other->inputs.empty());
}

bool CellularTex::Build(const BuildContext& context) {
    PacketRef field = FreshField(context);
    if (!field || !field->samples || field->PointCount() == 0)
        throw QXException("Instantiated with empty packet");

    CellularRowSetup setup;
    setup.scale = 1.0 / ParamFloat(this, "Scale");
    setup.shape = ParamFloat(this, "Shape");
    setup.anchorX = anchor[0];
    setup.anchorY = anchor[1];
    setup.style = ParamInt(this, "Style");
    setup.distance = static_cast<CellDistance>(ParamInt(this, "Distance Function") & 3);
    const bool distortion = ParamBool(this, "Distortion Enable");
    const float angle = ParamInt(this, "Distortion Direction") * 3.1415927f / 180.0f;
    const float amount = ParamFloat(this, "Distortion Amount");
    setup.distortX = Orogen::Cos(angle) * amount;
    setup.distortY = Orogen::Sin(angle) * amount;
    PacketRef input = distortion ? InputPacket(context, 0) : PacketRef();
    setup.seed = static_cast<uint32_t>(ParamInt(this, "Random Seed"));
    ReportPercent(context, this, 0);

    PacketVisitor visitor(field.get());
    visitor.Add(input && input->GetKind() == kHeightField ? input.get() : nullptr);
    setup.width = visitor.Width();
    setup.height = visitor.Height();
    const std::vector<double> worldX = ColumnPositions(context, setup.width);
    const std::vector<double> worldY = RowPositions(context, setup.height);
    setup.worldX = worldX.data();
    setup.worldY = worldY.data();

    // Heights that shift the positions: the input, or the visitor's constant
    // where nothing usable is connected (a constant 0 shifts nothing).
    const float* heights = nullptr;
    std::vector<float> constant;
    if (distortion) {
        heights = visitor.Row(1, 0);
        if (!heights && visitor.constantValue != 0.0f) {
            constant.assign(field->PointCount(), visitor.constantValue);
            heights = constant.data();
        }
    }
    const bool done = visitor.Visit(context.progress, this, [&](int32_t first, int32_t last) {
        CellularRows(setup, first, last, heights, visitor.Row(0, 0));
        return true;
    });
    if (!done) return false;

    ClampHeights(field.get());
    ReportPercent(context, this, 100);
    StoreOutput(context, field, 0);
    return true;
}

bool CellularTex::AfterLoad(uint8_t version) {
    if (version < 2) {
        // Older files kept "Scale" in units 256 times smaller.
        ParamRecord& scale =
            params.records[static_cast<size_t>(FindParameter(params, "Scale"))];
        scale.value.f *= 0.00390625f;
        scale.minimum.f = 0.015625f;
        scale.maximum.f = 16.0f;
    }
    SetRandomizeAction(this);
    if (ParamBool(this, "Distortion Enable")) DeclarePorts(true);
    return true;
}

// ---------------------------------------------------------------------------
// The kernel

namespace {

constexpr uint32_t kHashX = 702395077u;
constexpr uint32_t kHashY = 915488749u;
constexpr uint32_t kHashZ = 2120969693u;
constexpr uint32_t kStepMul = 1402024253u;
constexpr uint32_t kStepAdd = 586950981u;
constexpr double kUnit = 2.3283064365386963e-10;  // 2^-32
constexpr double kFar = 999999.9;

// Feature points per cube, indexed by the top byte of the cube's hash.
constexpr char kCountDigits[] =
    "4311124222510212204321213224225123222223242532225335213344230422"
    "2132223331202112222532323221021121221342225424225432254333522222"
    "3114213343243334514243123532131333231554224134153353432211111245"
    "4542151123332523320211421321223255345524453222142334254242224532";
static_assert(sizeof(kCountDigits) == 257);

// 32-bit entries so the vector paths can gather them.
constexpr std::array<int32_t, 256> kPointCount = [] {
    std::array<int32_t, 256> table{};
    for (int i = 0; i < 256; ++i) table[i] = kCountDigits[i] - '0';
    return table;
}();

// The home cube, then the neighbours in the order they are searched: faces,
// edges, corners.
struct CubeOffset {
    int dx, dy, dz;
};
constexpr CubeOffset kCubeOrder[27] = {
    {0, 0, 0},
    {-1, 0, 0},  {0, -1, 0},  {0, 0, -1},  {1, 0, 0},   {0, 1, 0},   {0, 0, 1},
    {-1, -1, 0}, {-1, 0, -1}, {0, -1, -1}, {1, 1, 0},   {1, 0, 1},   {0, 1, 1},
    {-1, 1, 0},  {-1, 0, 1},  {0, -1, 1},  {1, -1, 0},  {1, 0, -1},  {0, 1, -1},
    {-1, -1, -1}, {-1, -1, 1}, {-1, 1, -1}, {-1, 1, 1}, {1, -1, -1}, {1, -1, 1},
    {1, 1, -1},  {1, 1, 1},
};

inline uint32_t Step(uint32_t r) { return kStepMul * r + kStepAdd; }

// Truncation with the x86 conversion's answer for NaN and out-of-range values
// (INT32_MIN), so the plain and vector paths agree on every input.
inline int32_t Truncate(double v) {
    if (v > -2147483649.0 && v < 2147483648.0) return static_cast<int32_t>(v);
    return INT32_MIN;
}

// Floor as truncation then one down for a negative value that is not whole;
// wraps like the vector paths' 32-bit lanes.
inline int32_t FloorToCube(double v) {
    int32_t t = Truncate(v);
    if (v < static_cast<double>(t)) t = static_cast<int32_t>(static_cast<uint32_t>(t) - 1u);
    return t;
}

template <CellDistance M>
inline double Distance(double x, double y, double z) {
    if constexpr (M == CellDistance::Euclidean) {
        return x * x + y * y + z * z;
    } else if constexpr (M == CellDistance::Manhattan) {
        return std::fabs(x) + std::fabs(y) + std::fabs(z);
    } else if constexpr (M == CellDistance::Alternate1) {
        double ax = std::fabs(x), ay = std::fabs(y), az = std::fabs(z);
        double m = ax > ay ? ax : ay;
        return m > az ? m : az;
    } else {
        double ax = std::fabs(x), ay = std::fabs(y), az = std::fabs(z);
        if (ax >= ay && ax >= az) return ax + std::sqrt(y * y + z * z);
        if (ay >= az) return ay + std::sqrt(x * x + z * z);
        return az + std::sqrt(x * x + y * y);
    }
}

// Strict insertion: an equal distance goes after the one already held.
inline void Insert(CellularResult& r, double d, uint32_t id) {
    if (!(d < r.f[3])) return;
    int k = 3;
    while (k > 0 && d < r.f[k - 1]) {
        r.f[k] = r.f[k - 1];
        r.id[k] = r.id[k - 1];
        --k;
    }
    r.f[k] = d;
    r.id[k] = id;
}

template <CellDistance M>
void SearchCube(int32_t cx, int32_t cy, int32_t cz, double x, double y, double z, uint32_t seed,
                CellularResult& r) {
    uint32_t h = kHashX * static_cast<uint32_t>(cx) + kHashY * static_cast<uint32_t>(cy) +
                 kHashZ * static_cast<uint32_t>(cz) + seed;
    int n = kPointCount[h >> 24];
    if (n < 1) return;
    uint32_t s = kStepMul * h + kStepAdd;
    const double bx = cx, by = cy, bz = cz;
    for (int i = 0; i < n; ++i) {
        uint32_t s1 = Step(s), s2 = Step(s1), s3 = Step(s2);
        double px = bx + (static_cast<double>(s1) + 0.5) * kUnit - x;
        double py = by + (static_cast<double>(s2) + 0.5) * kUnit - y;
        double pz = bz + (static_cast<double>(s3) + 0.5) * kUnit - z;
        Insert(r, Distance<M>(px, py, pz), s);
        s = Step(s3);
    }
}

template <CellDistance M>
CellularResult SearchPlain(double x, double y, double z, uint32_t seed) {
    CellularResult r{{kFar, kFar, kFar, kFar}, {0, 0, 0, 0}};
    const int32_t ix = FloorToCube(x), iy = FloorToCube(y), iz = FloorToCube(z);
    const double fx = x - ix, fy = y - iy, fz = z - iz;
    // Squared distances to the low and high faces of the home cube, per axis;
    // index 0 low, 2 high, 1 (same cube along that axis) contributes nothing.
    const double tx[3] = {fx * fx, 0.0, (1.0 - fx) * (1.0 - fx)};
    const double ty[3] = {fy * fy, 0.0, (1.0 - fy) * (1.0 - fy)};
    const double tz[3] = {fz * fz, 0.0, (1.0 - fz) * (1.0 - fz)};
    SearchCube<M>(ix, iy, iz, x, y, z, seed, r);
    for (int c = 1; c < 27; ++c) {
        const CubeOffset& o = kCubeOrder[c];
        // Adding the zero terms of unused axes changes no bits.
        double bound = tx[o.dx + 1] + ty[o.dy + 1] + tz[o.dz + 1];
        if (r.f[3] > bound) {
            SearchCube<M>(static_cast<int32_t>(static_cast<uint32_t>(ix) + o.dx),
                          static_cast<int32_t>(static_cast<uint32_t>(iy) + o.dy),
                          static_cast<int32_t>(static_cast<uint32_t>(iz) + o.dz), x, y, z, seed,
                          r);
        }
    }
    return r;
}

// ---------------------------------------------------------------------------
// AVX2: four samples at once, one per 64-bit lane; the integer work runs in
// four 32-bit lanes. Every lane follows the plain search's steps exactly;
// lanes that must not visit a cube or have no further point are masked out.

#define BASEKIT_AVX2 __attribute__((target("avx2")))
#define BASEKIT_AVX512 __attribute__((target("avx512f,avx512dq,avx512bw,avx512vl,avx2")))

BASEKIT_AVX2 inline __m128i NarrowMask(__m256d m) {
    __m256 f = _mm256_castpd_ps(m);
    return _mm_castps_si128(
        _mm_shuffle_ps(_mm256_castps256_ps128(f), _mm256_extractf128_ps(f, 1), _MM_SHUFFLE(2, 0, 2, 0)));
}

BASEKIT_AVX2 inline __m128i FloorAvx2(__m256d v) {
    __m128i t = _mm256_cvttpd_epi32(v);
    __m256d below = _mm256_cmp_pd(v, _mm256_cvtepi32_pd(t), _CMP_LT_OQ);
    return _mm_add_epi32(t, NarrowMask(below));
}

// (double)u + 0.5 for unsigned 32-bit u, exactly.
BASEKIT_AVX2 inline __m256d UnsignedPlusHalf(__m128i u) {
    __m128i flipped = _mm_xor_si128(u, _mm_set1_epi32(INT32_MIN));
    return _mm256_add_pd(_mm256_cvtepi32_pd(flipped), _mm256_set1_pd(2147483648.5));
}

BASEKIT_AVX2 inline __m128i StepAvx2(__m128i r) {
    return _mm_add_epi32(_mm_mullo_epi32(r, _mm_set1_epi32(static_cast<int32_t>(kStepMul))),
                         _mm_set1_epi32(static_cast<int32_t>(kStepAdd)));
}

template <CellDistance M>
BASEKIT_AVX2 inline __m256d DistanceAvx2(__m256d x, __m256d y, __m256d z) {
    if constexpr (M == CellDistance::Euclidean) {
        return _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(x, x), _mm256_mul_pd(y, y)),
                             _mm256_mul_pd(z, z));
    } else {
        const __m256d sign = _mm256_set1_pd(-0.0);
        __m256d ax = _mm256_andnot_pd(sign, x), ay = _mm256_andnot_pd(sign, y),
                az = _mm256_andnot_pd(sign, z);
        if constexpr (M == CellDistance::Manhattan) {
            return _mm256_add_pd(_mm256_add_pd(ax, ay), az);
        } else if constexpr (M == CellDistance::Alternate1) {
            // max_pd(a, b) is "a > b ? a : b", NaN included, as in the plain path.
            return _mm256_max_pd(_mm256_max_pd(ax, ay), az);
        } else {
            __m256d xWins = _mm256_and_pd(_mm256_cmp_pd(ax, ay, _CMP_GE_OQ),
                                          _mm256_cmp_pd(ax, az, _CMP_GE_OQ));
            __m256d yWins = _mm256_andnot_pd(xWins, _mm256_cmp_pd(ay, az, _CMP_GE_OQ));
            __m256d m = _mm256_blendv_pd(_mm256_blendv_pd(az, ay, yWins), ax, xWins);
            __m256d p = _mm256_blendv_pd(x, y, xWins);
            __m256d q = _mm256_blendv_pd(y, z, _mm256_or_pd(xWins, yWins));
            return _mm256_add_pd(
                m, _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(p, p), _mm256_mul_pd(q, q))));
        }
    }
}

// m ? b : a on 64-bit integer lanes.
BASEKIT_AVX2 inline __m256i BlendLanes(__m256i a, __m256i b, __m256d m) {
    return _mm256_castpd_si256(
        _mm256_blendv_pd(_mm256_castsi256_pd(a), _mm256_castsi256_pd(b), m));
}

struct LanesAvx2 {
    __m256d f[4];
    __m256i id[4];  // 64-bit lanes holding 32-bit identifiers
};

// All-ones 64-bit lanes where bit k of `bits` is set.
BASEKIT_AVX2 inline __m256d LaneMaskAvx2(int bits) {
    return _mm256_castsi256_pd(_mm256_cmpgt_epi64(
        _mm256_and_si256(_mm256_set1_epi64x(bits), _mm256_setr_epi64x(1, 2, 4, 8)),
        _mm256_setzero_si256()));
}

// Strict insertion of distance d (identifiers idv, one per 64-bit lane) in the lanes of `lanes`; c4
// is lanes & (d < f[3]). The comparisons are independent: the distances are
// sorted, so c1 implies c2 implies c3 implies c4. Only the first kIds
// identifiers are tracked.
template <int kIds>
BASEKIT_AVX2 inline void InsertAvx2(LanesAvx2& s, __m256d d, __m256i idv, __m256d lanes,
                                    __m256d c4) {
    const __m256d c3 = _mm256_and_pd(lanes, _mm256_cmp_pd(d, s.f[2], _CMP_LT_OQ));
    const __m256d c2 = _mm256_and_pd(lanes, _mm256_cmp_pd(d, s.f[1], _CMP_LT_OQ));
    const __m256d c1 = _mm256_and_pd(lanes, _mm256_cmp_pd(d, s.f[0], _CMP_LT_OQ));
    s.f[3] = _mm256_blendv_pd(s.f[3], _mm256_blendv_pd(d, s.f[2], c3), c4);
    s.f[2] = _mm256_blendv_pd(s.f[2], _mm256_blendv_pd(d, s.f[1], c2), c3);
    s.f[1] = _mm256_blendv_pd(s.f[1], _mm256_blendv_pd(d, s.f[0], c1), c2);
    s.f[0] = _mm256_blendv_pd(s.f[0], d, c1);
    if constexpr (kIds > 0) {
        if constexpr (kIds > 3) s.id[3] = BlendLanes(s.id[3], BlendLanes(idv, s.id[2], c3), c4);
        if constexpr (kIds > 2) s.id[2] = BlendLanes(s.id[2], BlendLanes(idv, s.id[1], c2), c3);
        if constexpr (kIds > 1) s.id[1] = BlendLanes(s.id[1], BlendLanes(idv, s.id[0], c1), c2);
        s.id[0] = BlendLanes(s.id[0], idv, c1);
    }
}

BASEKIT_AVX2 inline void StoreLanesAvx2(const LanesAvx2& s, CellularResult* out) {
    alignas(32) double f[4][4];
    alignas(32) uint64_t id[4][4];
    for (int k = 0; k < 4; ++k) {
        _mm256_store_pd(f[k], s.f[k]);
        _mm256_store_si256(reinterpret_cast<__m256i*>(id[k]), s.id[k]);
    }
    for (int lane = 0; lane < 4; ++lane) {
        for (int k = 0; k < 4; ++k) {
            out[lane].f[k] = f[k][lane];
            out[lane].id[k] = static_cast<uint32_t>(id[k][lane]);
        }
    }
}

template <CellDistance M>
BASEKIT_AVX2 void SearchAvx2(const double* xs, const double* ys, double zv,
                                                 uint32_t seed, CellularResult* out) {
    const __m256d X = _mm256_loadu_pd(xs), Y = _mm256_loadu_pd(ys), Z = _mm256_set1_pd(zv);
    const __m128i ix = FloorAvx2(X), iy = FloorAvx2(Y), iz = FloorAvx2(Z);
    const __m256d fx = _mm256_sub_pd(X, _mm256_cvtepi32_pd(ix));
    const __m256d fy = _mm256_sub_pd(Y, _mm256_cvtepi32_pd(iy));
    const __m256d fz = _mm256_sub_pd(Z, _mm256_cvtepi32_pd(iz));
    const __m256d one = _mm256_set1_pd(1.0), zero = _mm256_setzero_pd();
    const __m256d gx = _mm256_sub_pd(one, fx), gy = _mm256_sub_pd(one, fy),
                  gz = _mm256_sub_pd(one, fz);
    const __m256d tx[3] = {_mm256_mul_pd(fx, fx), zero, _mm256_mul_pd(gx, gx)};
    const __m256d ty[3] = {_mm256_mul_pd(fy, fy), zero, _mm256_mul_pd(gy, gy)};
    const __m256d tz[3] = {_mm256_mul_pd(fz, fz), zero, _mm256_mul_pd(gz, gz)};

    LanesAvx2 s;
    for (int k = 0; k < 4; ++k) {
        s.f[k] = _mm256_set1_pd(kFar);
        s.id[k] = _mm256_setzero_si256();
    }
    const __m128i seedV = _mm_set1_epi32(static_cast<int32_t>(seed));
    const __m256d unit = _mm256_set1_pd(kUnit);

    for (int c = 0; c < 27; ++c) {
        const CubeOffset& o = kCubeOrder[c];
        __m128i active = _mm_set1_epi32(-1);
        if (c > 0) {
            __m256d bound = _mm256_add_pd(_mm256_add_pd(tx[o.dx + 1], ty[o.dy + 1]), tz[o.dz + 1]);
            __m256d visit = _mm256_cmp_pd(s.f[3], bound, _CMP_GT_OQ);
            if (_mm256_movemask_pd(visit) == 0) continue;
            active = NarrowMask(visit);
        }
        const __m128i cx = _mm_add_epi32(ix, _mm_set1_epi32(o.dx));
        const __m128i cy = _mm_add_epi32(iy, _mm_set1_epi32(o.dy));
        const __m128i cz = _mm_add_epi32(iz, _mm_set1_epi32(o.dz));
        __m128i h = _mm_add_epi32(
            _mm_add_epi32(
                _mm_add_epi32(_mm_mullo_epi32(cx, _mm_set1_epi32(static_cast<int32_t>(kHashX))),
                              _mm_mullo_epi32(cy, _mm_set1_epi32(static_cast<int32_t>(kHashY)))),
                _mm_mullo_epi32(cz, _mm_set1_epi32(static_cast<int32_t>(kHashZ)))),
            seedV);
        __m128i n = _mm_i32gather_epi32(kPointCount.data(), _mm_srli_epi32(h, 24), 4);
        n = _mm_and_si128(n, active);
        __m128i most = _mm_max_epi32(n, _mm_shuffle_epi32(n, _MM_SHUFFLE(1, 0, 3, 2)));
        most = _mm_max_epi32(most, _mm_shuffle_epi32(most, _MM_SHUFFLE(2, 3, 0, 1)));
        const int count = _mm_cvtsi128_si32(most);
        if (count < 1) continue;

        const __m256d bx = _mm256_cvtepi32_pd(cx), by = _mm256_cvtepi32_pd(cy),
                      bz = _mm256_cvtepi32_pd(cz);
        __m128i r = StepAvx2(h);
        for (int i = 0; i < count; ++i) {
            const __m128i r1 = StepAvx2(r), r2 = StepAvx2(r1), r3 = StepAvx2(r2);
            __m256d px = _mm256_sub_pd(_mm256_add_pd(bx, _mm256_mul_pd(UnsignedPlusHalf(r1), unit)), X);
            __m256d py = _mm256_sub_pd(_mm256_add_pd(by, _mm256_mul_pd(UnsignedPlusHalf(r2), unit)), Y);
            __m256d pz = _mm256_sub_pd(_mm256_add_pd(bz, _mm256_mul_pd(UnsignedPlusHalf(r3), unit)), Z);
            __m256d d = DistanceAvx2<M>(px, py, pz);
            __m256d valid =
                _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm_cmpgt_epi32(n, _mm_set1_epi32(i))));
            __m256d c4 = _mm256_and_pd(valid, _mm256_cmp_pd(d, s.f[3], _CMP_LT_OQ));
            if (_mm256_movemask_pd(c4) != 0) InsertAvx2<4>(s, d, _mm256_cvtepu32_epi64(r), valid, c4);
            r = StepAvx2(r3);
        }
    }

    StoreLanesAvx2(s, out);
}

// ---------------------------------------------------------------------------
// AVX-512: the same scheme over eight lanes with mask registers.

// The zero-masked conversions say the same as the plain ones; they avoid a
// spurious uninitialised-value warning in GCC 12's headers.
BASEKIT_AVX512 inline __m512d ToDouble512(
    __m256i v) {
    return _mm512_maskz_cvtepi32_pd(0xFF, v);
}

BASEKIT_AVX512 inline __m512d
UnsignedToDouble512(__m256i v) {
    return _mm512_maskz_cvtepu32_pd(0xFF, v);
}

BASEKIT_AVX512 inline __m256i FloorAvx512(
    __m512d v) {
    __m256i t = _mm512_maskz_cvttpd_epi32(0xFF, v);
    __mmask8 below = _mm512_cmp_pd_mask(v, ToDouble512(t), _CMP_LT_OQ);
    return _mm256_mask_sub_epi32(t, below, t, _mm256_set1_epi32(1));
}

BASEKIT_AVX512 inline __m256i StepAvx512(
    __m256i r) {
    return _mm256_add_epi32(_mm256_mullo_epi32(r, _mm256_set1_epi32(static_cast<int32_t>(kStepMul))),
                            _mm256_set1_epi32(static_cast<int32_t>(kStepAdd)));
}

// The four nearest distances and identifiers of eight lanes, back to results.
BASEKIT_AVX512 inline void StoreLanesAvx512(__m512d f0, __m512d f1, __m512d f2, __m512d f3,
                                            __m256i i0, __m256i i1, __m256i i2, __m256i i3,
                                            CellularResult* out) {
    alignas(64) double f[4][8];
    alignas(32) uint32_t id[4][8];
    _mm512_store_pd(f[0], f0);
    _mm512_store_pd(f[1], f1);
    _mm512_store_pd(f[2], f2);
    _mm512_store_pd(f[3], f3);
    _mm256_store_si256(reinterpret_cast<__m256i*>(id[0]), i0);
    _mm256_store_si256(reinterpret_cast<__m256i*>(id[1]), i1);
    _mm256_store_si256(reinterpret_cast<__m256i*>(id[2]), i2);
    _mm256_store_si256(reinterpret_cast<__m256i*>(id[3]), i3);
    for (int lane = 0; lane < 8; ++lane) {
        for (int k = 0; k < 4; ++k) {
            out[lane].f[k] = f[k][lane];
            out[lane].id[k] = id[k][lane];
        }
    }
}

template <CellDistance M>
BASEKIT_AVX512 inline __m512d DistanceAvx512(
    __m512d x, __m512d y, __m512d z) {
    if constexpr (M == CellDistance::Euclidean) {
        return _mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(x, x), _mm512_mul_pd(y, y)),
                             _mm512_mul_pd(z, z));
    } else {
        __m512d ax = _mm512_abs_pd(x), ay = _mm512_abs_pd(y), az = _mm512_abs_pd(z);
        if constexpr (M == CellDistance::Manhattan) {
            return _mm512_add_pd(_mm512_add_pd(ax, ay), az);
        } else if constexpr (M == CellDistance::Alternate1) {
            return _mm512_maskz_max_pd(0xFF, _mm512_maskz_max_pd(0xFF, ax, ay), az);
        } else {
            __mmask8 xWins = _mm512_cmp_pd_mask(ax, ay, _CMP_GE_OQ) &
                             _mm512_cmp_pd_mask(ax, az, _CMP_GE_OQ);
            __mmask8 yWins = static_cast<__mmask8>(~xWins) & _mm512_cmp_pd_mask(ay, az, _CMP_GE_OQ);
            __m512d m = _mm512_mask_blend_pd(xWins, _mm512_mask_blend_pd(yWins, az, ay), ax);
            __m512d p = _mm512_mask_blend_pd(xWins, x, y);
            __m512d q = _mm512_mask_blend_pd(xWins | yWins, y, z);
            return _mm512_add_pd(
                m, _mm512_maskz_sqrt_pd(0xFF, _mm512_add_pd(_mm512_mul_pd(p, p), _mm512_mul_pd(q, q))));
        }
    }
}

template <CellDistance M>
BASEKIT_AVX512 void SearchAvx512(
    const double* xs, const double* ys, double zv, uint32_t seed, CellularResult* out) {
    const __m512d X = _mm512_loadu_pd(xs), Y = _mm512_loadu_pd(ys), Z = _mm512_set1_pd(zv);
    const __m256i ix = FloorAvx512(X), iy = FloorAvx512(Y), iz = FloorAvx512(Z);
    const __m512d fx = _mm512_sub_pd(X, ToDouble512(ix));
    const __m512d fy = _mm512_sub_pd(Y, ToDouble512(iy));
    const __m512d fz = _mm512_sub_pd(Z, ToDouble512(iz));
    const __m512d one = _mm512_set1_pd(1.0), zero = _mm512_setzero_pd();
    const __m512d gx = _mm512_sub_pd(one, fx), gy = _mm512_sub_pd(one, fy),
                  gz = _mm512_sub_pd(one, fz);
    const __m512d tx[3] = {_mm512_mul_pd(fx, fx), zero, _mm512_mul_pd(gx, gx)};
    const __m512d ty[3] = {_mm512_mul_pd(fy, fy), zero, _mm512_mul_pd(gy, gy)};
    const __m512d tz[3] = {_mm512_mul_pd(fz, fz), zero, _mm512_mul_pd(gz, gz)};

    __m512d f0 = _mm512_set1_pd(kFar), f1 = f0, f2 = f0, f3 = f0;
    __m256i i0 = _mm256_setzero_si256(), i1 = i0, i2 = i0, i3 = i0;
    const __m256i seedV = _mm256_set1_epi32(static_cast<int32_t>(seed));
    const __m512d unit = _mm512_set1_pd(kUnit);
    const __m512d half = _mm512_set1_pd(0.5);

    for (int c = 0; c < 27; ++c) {
        const CubeOffset& o = kCubeOrder[c];
        __mmask8 active = 0xFF;
        if (c > 0) {
            __m512d bound = _mm512_add_pd(_mm512_add_pd(tx[o.dx + 1], ty[o.dy + 1]), tz[o.dz + 1]);
            active = _mm512_cmp_pd_mask(f3, bound, _CMP_GT_OQ);
            if (active == 0) continue;
        }
        const __m256i cx = _mm256_add_epi32(ix, _mm256_set1_epi32(o.dx));
        const __m256i cy = _mm256_add_epi32(iy, _mm256_set1_epi32(o.dy));
        const __m256i cz = _mm256_add_epi32(iz, _mm256_set1_epi32(o.dz));
        __m256i h = _mm256_add_epi32(
            _mm256_add_epi32(
                _mm256_add_epi32(
                    _mm256_mullo_epi32(cx, _mm256_set1_epi32(static_cast<int32_t>(kHashX))),
                    _mm256_mullo_epi32(cy, _mm256_set1_epi32(static_cast<int32_t>(kHashY)))),
                _mm256_mullo_epi32(cz, _mm256_set1_epi32(static_cast<int32_t>(kHashZ)))),
            seedV);
        __m256i n = _mm256_mmask_i32gather_epi32(_mm256_setzero_si256(), active,
                                                 _mm256_srli_epi32(h, 24), kPointCount.data(), 4);
        __m256i most = _mm256_max_epi32(n, _mm256_permute2x128_si256(n, n, 1));
        most = _mm256_max_epi32(most, _mm256_shuffle_epi32(most, _MM_SHUFFLE(1, 0, 3, 2)));
        most = _mm256_max_epi32(most, _mm256_shuffle_epi32(most, _MM_SHUFFLE(2, 3, 0, 1)));
        const int points = _mm256_cvtsi256_si32(most);
        if (points < 1) continue;

        const __m512d bx = ToDouble512(cx), by = ToDouble512(cy),
                      bz = ToDouble512(cz);
        __m256i r = StepAvx512(h);
        for (int i = 0; i < points; ++i) {
            const __m256i r1 = StepAvx512(r), r2 = StepAvx512(r1), r3 = StepAvx512(r2);
            __m512d px = _mm512_sub_pd(
                _mm512_add_pd(bx, _mm512_mul_pd(_mm512_add_pd(UnsignedToDouble512(r1), half), unit)), X);
            __m512d py = _mm512_sub_pd(
                _mm512_add_pd(by, _mm512_mul_pd(_mm512_add_pd(UnsignedToDouble512(r2), half), unit)), Y);
            __m512d pz = _mm512_sub_pd(
                _mm512_add_pd(bz, _mm512_mul_pd(_mm512_add_pd(UnsignedToDouble512(r3), half), unit)), Z);
            __m512d d = DistanceAvx512<M>(px, py, pz);
            __mmask8 valid = _mm256_cmpgt_epi32_mask(n, _mm256_set1_epi32(i));
            __mmask8 c4 = _mm512_mask_cmp_pd_mask(valid, d, f3, _CMP_LT_OQ);
            if (c4 != 0) {
                __mmask8 c3 = _mm512_mask_cmp_pd_mask(c4, d, f2, _CMP_LT_OQ);
                __mmask8 c2 = _mm512_mask_cmp_pd_mask(c4, d, f1, _CMP_LT_OQ);
                __mmask8 c1 = _mm512_mask_cmp_pd_mask(c4, d, f0, _CMP_LT_OQ);
                f3 = _mm512_mask_blend_pd(c4, f3, _mm512_mask_blend_pd(c3, d, f2));
                i3 = _mm256_mask_blend_epi32(c4, i3, _mm256_mask_blend_epi32(c3, r, i2));
                f2 = _mm512_mask_blend_pd(c3, f2, _mm512_mask_blend_pd(c2, d, f1));
                i2 = _mm256_mask_blend_epi32(c3, i2, _mm256_mask_blend_epi32(c2, r, i1));
                f1 = _mm512_mask_blend_pd(c2, f1, _mm512_mask_blend_pd(c1, d, f0));
                i1 = _mm256_mask_blend_epi32(c2, i1, _mm256_mask_blend_epi32(c1, r, i0));
                f0 = _mm512_mask_blend_pd(c1, f0, d);
                i0 = _mm256_mask_blend_epi32(c1, i0, r);
            }
            r = StepAvx512(r3);
        }
    }

    StoreLanesAvx512(f0, f1, f2, f3, i0, i1, i2, i3, out);
}

// ---------------------------------------------------------------------------
// The vector paths share the feature points of the cubes around a tile of
// samples: a dense box of cubes, each holding its count and its points'
// absolute coordinates (cube corner + offset, the same doubles the plain
// search forms), so a sample's distance is one subtraction per axis away.

constexpr int kMaxPoints = 5;
constexpr int kColumnBlock = 256;  // columns of a tile
constexpr int kBandRows = 16;      // rows of a tile
constexpr int64_t kMaxBoxCubes = 16384;

struct CubeBox {
    int32_t x0 = 0, y0 = 0, z0 = 0;  // lowest cube
    int nx = 0, ny = 0, nz = 0;
    std::vector<int32_t> count;
    std::vector<double> px, py, pz;  // [cube * kMaxPoints + point]
    std::vector<uint32_t> id;
    std::vector<double> ty, tz;  // one row's y and z distance terms, see FillRowTerms
    int32_t delta[27] = {};      // cube index offset of each searched neighbour

    int32_t Index(int32_t cx, int32_t cy, int32_t cz) const {
        return ((cx - x0) * ny + (cy - y0)) * nz + (cz - z0);
    }
};

// Fills `box` with every cube next to a home cube in loX..hiX, loY..hiY, iz.
// Returns false when the box would be too large or would reach the ends of
// the 32-bit cube range (where neighbour coordinates wrap); the caller then
// searches without it.
bool FillCubeBox(int64_t loX, int64_t hiX, int64_t loY, int64_t hiY, int32_t iz, uint32_t seed,
                 CubeBox& box) {
    loX -= 1, hiX += 1, loY -= 1, hiY += 1;
    const int64_t loZ = static_cast<int64_t>(iz) - 1, hiZ = static_cast<int64_t>(iz) + 1;
    if (loX <= INT32_MIN || loY <= INT32_MIN || loZ <= INT32_MIN || hiX >= INT32_MAX ||
        hiY >= INT32_MAX || hiZ >= INT32_MAX)
        return false;
    const int64_t nx = hiX - loX + 1, ny = hiY - loY + 1, nz = hiZ - loZ + 1;
    if (nx * ny * nz > kMaxBoxCubes) return false;

    box.x0 = static_cast<int32_t>(loX);
    box.y0 = static_cast<int32_t>(loY);
    box.z0 = static_cast<int32_t>(loZ);
    box.nx = static_cast<int>(nx);
    box.ny = static_cast<int>(ny);
    box.nz = static_cast<int>(nz);
    const size_t cubes = static_cast<size_t>(nx * ny * nz);
    box.count.resize(cubes);
    box.px.resize(cubes * kMaxPoints);
    box.py.resize(cubes * kMaxPoints);
    box.pz.resize(cubes * kMaxPoints);
    box.id.resize(cubes * kMaxPoints);
    box.ty.resize(cubes * kMaxPoints);
    box.tz.resize(cubes * kMaxPoints);
    for (int c = 0; c < 27; ++c) {
        const CubeOffset& o = kCubeOrder[c];
        box.delta[c] = (o.dx * box.ny + o.dy) * box.nz + o.dz;
    }

    size_t cube = 0;
    for (int64_t cx = loX; cx <= hiX; ++cx) {
        for (int64_t cy = loY; cy <= hiY; ++cy) {
            for (int64_t cz = loZ; cz <= hiZ; ++cz, ++cube) {
                const uint32_t h = kHashX * static_cast<uint32_t>(cx) +
                                   kHashY * static_cast<uint32_t>(cy) +
                                   kHashZ * static_cast<uint32_t>(cz) + seed;
                const int points = kPointCount[h >> 24];
                box.count[cube] = points;
                uint32_t r = kStepMul * h + kStepAdd;
                const double bx = static_cast<double>(cx), by = static_cast<double>(cy),
                             bz = static_cast<double>(cz);
                for (int k = 0; k < points; ++k) {
                    const uint32_t r1 = Step(r), r2 = Step(r1), r3 = Step(r2);
                    const size_t at = cube * kMaxPoints + k;
                    box.px[at] = bx + (static_cast<double>(r1) + 0.5) * kUnit;
                    box.py[at] = by + (static_cast<double>(r2) + 0.5) * kUnit;
                    box.pz[at] = bz + (static_cast<double>(r3) + 0.5) * kUnit;
                    box.id[at] = r;
                    r = Step(r3);
                }
            }
        }
    }
    return true;
}

// For a row at (y, z) whose home cubes lie in layer iy: each point's y and z
// terms of the distance, as the plain distance forms them, for the cubes of
// layers iy - 1 .. iy + 1.
template <CellDistance M>
void FillRowTerms(CubeBox& box, double y, double z, int32_t iy) {
    for (int cx = 0; cx < box.nx; ++cx) {
        for (int cy = iy - 1 - box.y0; cy <= iy + 1 - box.y0; ++cy) {
            for (int cz = 0; cz < box.nz; ++cz) {
                const size_t cube = (static_cast<size_t>(cx) * box.ny + cy) * box.nz + cz;
                for (int k = 0; k < box.count[cube]; ++k) {
                    const size_t at = cube * kMaxPoints + k;
                    const double qy = box.py[at] - y, qz = box.pz[at] - z;
                    if constexpr (M == CellDistance::Euclidean) {
                        box.ty[at] = qy * qy;
                        box.tz[at] = qz * qz;
                    } else if constexpr (M == CellDistance::Alternate2) {
                        box.ty[at] = qy;
                        box.tz[at] = qz;
                    } else {
                        box.ty[at] = std::fabs(qy);
                        box.tz[at] = std::fabs(qz);
                    }
                }
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Searches through a filled cube box for lanes with their own y (distorted
// rows). Lanes whose cubes coincide take each point's coordinates as one
// broadcast; lanes in other cubes are served in further rounds of the same
// neighbour, so each lane still sees its cubes and points in the plain order.
// kIds: how many of the nearest identifiers the style needs (0..4); the
// others are not tracked and come back as 0.

template <CellDistance M, int kIds>
BASEKIT_AVX512 void SearchBoxAvx512(const CubeBox& box, const double* xs, const double* ys,
                                    double zv, const int32_t* ixs, const int32_t* iys, int32_t iz,
                                    const int32_t* homes, CellularResult* out) {
    const __m512d X = _mm512_loadu_pd(xs), Y = _mm512_loadu_pd(ys), Z = _mm512_set1_pd(zv);
    const __m512d fx =
        _mm512_sub_pd(X, ToDouble512(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(ixs))));
    const __m512d fy =
        _mm512_sub_pd(Y, ToDouble512(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(iys))));
    const __m512d fz = _mm512_set1_pd(zv - static_cast<double>(iz));
    const __m512d one = _mm512_set1_pd(1.0), zero = _mm512_setzero_pd();
    const __m512d gx = _mm512_sub_pd(one, fx), gy = _mm512_sub_pd(one, fy),
                  gz = _mm512_sub_pd(one, fz);
    const __m512d tx[3] = {_mm512_mul_pd(fx, fx), zero, _mm512_mul_pd(gx, gx)};
    const __m512d ty[3] = {_mm512_mul_pd(fy, fy), zero, _mm512_mul_pd(gy, gy)};
    const __m512d tz[3] = {_mm512_mul_pd(fz, fz), zero, _mm512_mul_pd(gz, gz)};
    const __m256i home = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(homes));

    __m512d f0 = _mm512_set1_pd(kFar), f1 = f0, f2 = f0, f3 = f0;
    __m256i i0 = _mm256_setzero_si256(), i1 = i0, i2 = i0, i3 = i0;

    for (int c = 0; c < 27; ++c) {
        const CubeOffset& o = kCubeOrder[c];
        __mmask8 pending = 0xFF;
        if (c > 0) {
            __m512d bound = _mm512_add_pd(_mm512_add_pd(tx[o.dx + 1], ty[o.dy + 1]), tz[o.dz + 1]);
            pending = _mm512_cmp_pd_mask(f3, bound, _CMP_GT_OQ);
        }
        while (pending != 0) {
            const int lane = __builtin_ctz(pending);
            const __mmask8 lanes =
                _mm256_mask_cmpeq_epi32_mask(pending, home, _mm256_set1_epi32(homes[lane]));
            pending = static_cast<__mmask8>(pending & ~lanes);
            const int32_t cube = homes[lane] + box.delta[c];
            const int points = box.count[cube];
            const size_t first = static_cast<size_t>(cube) * kMaxPoints;
            for (int k = 0; k < points; ++k) {
                const __m512d d = DistanceAvx512<M>(
                    _mm512_sub_pd(_mm512_set1_pd(box.px[first + k]), X),
                    _mm512_sub_pd(_mm512_set1_pd(box.py[first + k]), Y),
                    _mm512_sub_pd(_mm512_set1_pd(box.pz[first + k]), Z));
                // Independent comparisons: the distances are sorted, so c1
                // implies c2 implies c3 implies c4.
                const __mmask8 c4 = _mm512_mask_cmp_pd_mask(lanes, d, f3, _CMP_LT_OQ);
                if (c4 == 0) continue;
                const __mmask8 c3 = _mm512_mask_cmp_pd_mask(lanes, d, f2, _CMP_LT_OQ);
                const __mmask8 c2 = _mm512_mask_cmp_pd_mask(lanes, d, f1, _CMP_LT_OQ);
                const __mmask8 c1 = _mm512_mask_cmp_pd_mask(lanes, d, f0, _CMP_LT_OQ);
                f3 = _mm512_mask_blend_pd(c4, f3, _mm512_mask_blend_pd(c3, d, f2));
                f2 = _mm512_mask_blend_pd(c3, f2, _mm512_mask_blend_pd(c2, d, f1));
                f1 = _mm512_mask_blend_pd(c2, f1, _mm512_mask_blend_pd(c1, d, f0));
                f0 = _mm512_mask_blend_pd(c1, f0, d);
                if constexpr (kIds > 0) {
                    const __m256i idv = _mm256_set1_epi32(static_cast<int32_t>(box.id[first + k]));
                    if constexpr (kIds > 3)
                        i3 = _mm256_mask_blend_epi32(c4, i3, _mm256_mask_blend_epi32(c3, idv, i2));
                    if constexpr (kIds > 2)
                        i2 = _mm256_mask_blend_epi32(c3, i2, _mm256_mask_blend_epi32(c2, idv, i1));
                    if constexpr (kIds > 1)
                        i1 = _mm256_mask_blend_epi32(c2, i1, _mm256_mask_blend_epi32(c1, idv, i0));
                    i0 = _mm256_mask_blend_epi32(c1, i0, idv);
                }
            }
        }
    }

    StoreLanesAvx512(f0, f1, f2, f3, i0, i1, i2, i3, out);
}

template <CellDistance M, int kIds>
BASEKIT_AVX2 void SearchBoxAvx2(const CubeBox& box, const double* xs, const double* ys, double zv,
                                const int32_t* ixs, const int32_t* iys, int32_t iz,
                                const int32_t* homes, CellularResult* out) {
    const __m256d X = _mm256_loadu_pd(xs), Y = _mm256_loadu_pd(ys), Z = _mm256_set1_pd(zv);
    const __m256d fx = _mm256_sub_pd(
        X, _mm256_cvtepi32_pd(_mm_loadu_si128(reinterpret_cast<const __m128i*>(ixs))));
    const __m256d fy = _mm256_sub_pd(
        Y, _mm256_cvtepi32_pd(_mm_loadu_si128(reinterpret_cast<const __m128i*>(iys))));
    const __m256d fz = _mm256_set1_pd(zv - static_cast<double>(iz));
    const __m256d one = _mm256_set1_pd(1.0), zero = _mm256_setzero_pd();
    const __m256d gx = _mm256_sub_pd(one, fx), gy = _mm256_sub_pd(one, fy),
                  gz = _mm256_sub_pd(one, fz);
    const __m256d tx[3] = {_mm256_mul_pd(fx, fx), zero, _mm256_mul_pd(gx, gx)};
    const __m256d ty[3] = {_mm256_mul_pd(fy, fy), zero, _mm256_mul_pd(gy, gy)};
    const __m256d tz[3] = {_mm256_mul_pd(fz, fz), zero, _mm256_mul_pd(gz, gz)};
    const __m128i home = _mm_loadu_si128(reinterpret_cast<const __m128i*>(homes));

    LanesAvx2 s;
    for (int k = 0; k < 4; ++k) {
        s.f[k] = _mm256_set1_pd(kFar);
        s.id[k] = _mm256_setzero_si256();
    }

    for (int c = 0; c < 27; ++c) {
        const CubeOffset& o = kCubeOrder[c];
        int pending = 0xF;
        if (c > 0) {
            __m256d bound = _mm256_add_pd(_mm256_add_pd(tx[o.dx + 1], ty[o.dy + 1]), tz[o.dz + 1]);
            pending = _mm256_movemask_pd(_mm256_cmp_pd(s.f[3], bound, _CMP_GT_OQ));
        }
        while (pending != 0) {
            const int lane = __builtin_ctz(pending);
            const __m256d same = _mm256_castsi256_pd(
                _mm256_cvtepi32_epi64(_mm_cmpeq_epi32(home, _mm_set1_epi32(homes[lane]))));
            const int sameBits = _mm256_movemask_pd(same) & pending;
            pending &= ~sameBits;
            const __m256d lanes = LaneMaskAvx2(sameBits);
            const int32_t cube = homes[lane] + box.delta[c];
            const int points = box.count[cube];
            const size_t first = static_cast<size_t>(cube) * kMaxPoints;
            for (int k = 0; k < points; ++k) {
                const __m256d d = DistanceAvx2<M>(
                    _mm256_sub_pd(_mm256_set1_pd(box.px[first + k]), X),
                    _mm256_sub_pd(_mm256_set1_pd(box.py[first + k]), Y),
                    _mm256_sub_pd(_mm256_set1_pd(box.pz[first + k]), Z));
                const __m256d c4 = _mm256_and_pd(lanes, _mm256_cmp_pd(d, s.f[3], _CMP_LT_OQ));
                if (_mm256_movemask_pd(c4) == 0) continue;
                InsertAvx2<kIds>(s, d, _mm256_set1_epi64x(box.id[first + k]), lanes, c4);
            }
        }
    }
    StoreLanesAvx2(s, out);
}

// ---------------------------------------------------------------------------
// Runs: consecutive samples of an undistorted row that share their home cube,
// so they share y, z and every cube they may visit. The run is searched cube
// by cube; for each cube only the sets of lanes (8 or 4 samples) that must
// visit it do the work, and their state waits in memory in between. Compared
// with searching each set on its own, the data-dependent branches (whether a
// cube is visited at all) are taken once per run instead of once per set.

struct RunLanes {
    alignas(64) double x[kColumnBlock];
    // Squared distances to the home cube's low x face, 0, and its high x face,
    // so that tx[dx + 1] is the x term of a neighbour's bound.
    alignas(64) double tx[3][kColumnBlock];
    alignas(64) double mask[kColumnBlock];     // AVX2: lanes visiting the current cube
    alignas(64) uint8_t kmask[kColumnBlock / 8];  // AVX-512: the same as bit masks
    alignas(64) double f[4][kColumnBlock];
    alignas(64) uint32_t id32[4][kColumnBlock];  // AVX-512 identifiers
    alignas(64) uint64_t id64[4][kColumnBlock];  // AVX2 identifiers, one per 64-bit lane
};

// The points of a run's 27 cubes in search order, for runs of one set of
// lanes: there a branch per cube (and a point loop of varying length per
// cube) costs more than the work it saves.
struct FlatPoints {
    alignas(64) double bound[27][8];  // each lane's squared distance to each cube
    // Box index, cube number and whether it is its cube's first point, for
    // each point. Each cube writes 8 entries and the next starts where its
    // points end, hence the spare room.
    alignas(32) int32_t at[27 * kMaxPoints + 8];
    uint8_t cube[27 * kMaxPoints + 8];
    uint8_t fresh[27 * kMaxPoints + 8];
};

// The row terms of point `at` give the distance from x alone.
template <CellDistance M>
BASEKIT_AVX512 inline __m512d RowDistanceAvx512(const CubeBox& box, size_t at, __m512d X) {
    const __m512d x = _mm512_sub_pd(_mm512_set1_pd(box.px[at]), X);
    const __m512d b = _mm512_set1_pd(box.ty[at]), c = _mm512_set1_pd(box.tz[at]);
    if constexpr (M == CellDistance::Euclidean) {
        return _mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(x, x), b), c);
    } else if constexpr (M == CellDistance::Manhattan) {
        return _mm512_add_pd(_mm512_add_pd(_mm512_abs_pd(x), b), c);
    } else if constexpr (M == CellDistance::Alternate1) {
        return _mm512_maskz_max_pd(0xFF, _mm512_maskz_max_pd(0xFF, _mm512_abs_pd(x), b), c);
    } else {
        return DistanceAvx512<M>(x, b, c);
    }
}

// The flat list of a run's cubes for lanes whose x is X: each lane's bound
// per cube, and each point's box index, cube and first-of-cube flag.
// Returns the number of points.
BASEKIT_AVX512 int FillFlatPoints(const CubeBox& box, FlatPoints& flat, __m512d X, double yv,
                                  double zv, int32_t ix, int32_t iy, int32_t iz, int32_t home) {
    const double fy = yv - static_cast<double>(iy), fz = zv - static_cast<double>(iz);
    const double ty[3] = {fy * fy, 0.0, (1.0 - fy) * (1.0 - fy)};
    const double tz[3] = {fz * fz, 0.0, (1.0 - fz) * (1.0 - fz)};
    const __m512d fx = _mm512_sub_pd(X, _mm512_set1_pd(static_cast<double>(ix)));
    const __m512d gx = _mm512_sub_pd(_mm512_set1_pd(1.0), fx);
    const __m512d tx[3] = {_mm512_mul_pd(fx, fx), _mm512_setzero_pd(), _mm512_mul_pd(gx, gx)};
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
    __m512d X, f0, f1, f2, f3;
    __m512d start3;  // f3 as it stood at the current cube's first point
    __m256i i0, i1, i2, i3;
};

// Point j of the flat list for one set of lanes. A lane takes a cube's points
// when its fourth distance at the cube's first point is above its bound: the
// decision the cube-by-cube search makes, without a branch per cube.
template <CellDistance M, int kIds>
BASEKIT_AVX512 inline void VisitFlatPoint(const CubeBox& box, const FlatPoints& flat, int j,
                                          FlatLanes& s) {
    const size_t at = static_cast<size_t>(flat.at[j]);
    s.start3 = _mm512_mask_mov_pd(s.start3, flat.fresh[j], s.f3);
    const __mmask8 m =
        _mm512_cmp_pd_mask(s.start3, _mm512_load_pd(flat.bound[flat.cube[j]]), _CMP_GT_OQ);
    const __m512d d = RowDistanceAvx512<M>(box, at, s.X);
    if constexpr (kIds <= 1) {
        if constexpr (kIds == 1) {
            const __mmask8 c1 = _mm512_mask_cmp_pd_mask(m, d, s.f0, _CMP_LT_OQ);
            s.i0 = _mm256_mask_blend_epi32(c1, s.i0,
                                           _mm256_set1_epi32(static_cast<int32_t>(box.id[at])));
        }
        s.f3 = _mm512_mask_min_pd(s.f3, m, s.f3, _mm512_maskz_max_pd(0xFF, s.f2, d));
        s.f2 = _mm512_mask_min_pd(s.f2, m, s.f2, _mm512_maskz_max_pd(0xFF, s.f1, d));
        s.f1 = _mm512_mask_min_pd(s.f1, m, s.f1, _mm512_maskz_max_pd(0xFF, s.f0, d));
        s.f0 = _mm512_mask_min_pd(s.f0, m, s.f0, d);
    } else {
        const __mmask8 c4 = _mm512_mask_cmp_pd_mask(m, d, s.f3, _CMP_LT_OQ);
        const __mmask8 c3 = _mm512_mask_cmp_pd_mask(m, d, s.f2, _CMP_LT_OQ);
        const __mmask8 c2 = _mm512_mask_cmp_pd_mask(m, d, s.f1, _CMP_LT_OQ);
        const __mmask8 c1 = _mm512_mask_cmp_pd_mask(m, d, s.f0, _CMP_LT_OQ);
        s.f3 = _mm512_mask_blend_pd(c4, s.f3, _mm512_mask_blend_pd(c3, d, s.f2));
        s.f2 = _mm512_mask_blend_pd(c3, s.f2, _mm512_mask_blend_pd(c2, d, s.f1));
        s.f1 = _mm512_mask_blend_pd(c2, s.f1, _mm512_mask_blend_pd(c1, d, s.f0));
        s.f0 = _mm512_mask_blend_pd(c1, s.f0, d);
        const __m256i idv = _mm256_set1_epi32(static_cast<int32_t>(box.id[at]));
        if constexpr (kIds > 3)
            s.i3 = _mm256_mask_blend_epi32(c4, s.i3, _mm256_mask_blend_epi32(c3, idv, s.i2));
        if constexpr (kIds > 2)
            s.i2 = _mm256_mask_blend_epi32(c3, s.i2, _mm256_mask_blend_epi32(c2, idv, s.i1));
        if constexpr (kIds > 1)
            s.i1 = _mm256_mask_blend_epi32(c2, s.i1, _mm256_mask_blend_epi32(c1, idv, s.i0));
        s.i0 = _mm256_mask_blend_epi32(c1, s.i0, idv);
    }
}

BASEKIT_AVX512 inline FlatLanes StartFlatLanes(const double* x) {
    FlatLanes s;
    s.X = _mm512_load_pd(x);
    s.f0 = s.f1 = s.f2 = s.f3 = s.start3 = _mm512_set1_pd(kFar);
    s.i0 = s.i1 = s.i2 = s.i3 = _mm256_setzero_si256();
    return s;
}

BASEKIT_AVX512 inline void StoreFlatLanes(const FlatLanes& s, RunLanes& run, int lane0) {
    _mm512_store_pd(run.f[0] + lane0, s.f0);
    _mm512_store_pd(run.f[1] + lane0, s.f1);
    _mm512_store_pd(run.f[2] + lane0, s.f2);
    _mm512_store_pd(run.f[3] + lane0, s.f3);
    _mm256_store_si256(reinterpret_cast<__m256i*>(run.id32[0] + lane0), s.i0);
    _mm256_store_si256(reinterpret_cast<__m256i*>(run.id32[1] + lane0), s.i1);
    _mm256_store_si256(reinterpret_cast<__m256i*>(run.id32[2] + lane0), s.i2);
    _mm256_store_si256(reinterpret_cast<__m256i*>(run.id32[3] + lane0), s.i3);
}

// Two short runs of one row, lanes 0..7 and 8..15 of `run`, each with its own
// home cube. They go through their flat lists side by side: one run alone is
// a chain of dependent min/max steps, two keep the vector units busy.
template <CellDistance M, int kIds>
BASEKIT_AVX512 void SearchShortRunsAvx512(const CubeBox& box, RunLanes& run, FlatPoints flat[2],
                                          double yv, double zv, const int32_t ix[2], int32_t iy,
                                          int32_t iz, const int32_t home[2]) {
    FlatLanes a = StartFlatLanes(run.x), b = StartFlatLanes(run.x + 8);
    const int na = FillFlatPoints(box, flat[0], a.X, yv, zv, ix[0], iy, iz, home[0]);
    const int nb = FillFlatPoints(box, flat[1], b.X, yv, zv, ix[1], iy, iz, home[1]);
    const int both = na < nb ? na : nb;
    for (int j = 0; j < both; ++j) {
        VisitFlatPoint<M, kIds>(box, flat[0], j, a);
        VisitFlatPoint<M, kIds>(box, flat[1], j, b);
    }
    for (int j = both; j < na; ++j) VisitFlatPoint<M, kIds>(box, flat[0], j, a);
    for (int j = both; j < nb; ++j) VisitFlatPoint<M, kIds>(box, flat[1], j, b);
    StoreFlatLanes(a, run, 0);
    StoreFlatLanes(b, run, 8);
}

// One short run, lanes 0..7 of `run`.
template <CellDistance M, int kIds>
BASEKIT_AVX512 void SearchShortRunAvx512(const CubeBox& box, RunLanes& run, FlatPoints& flat,
                                         double yv, double zv, int32_t ix, int32_t iy, int32_t iz,
                                         int32_t home) {
    FlatLanes a = StartFlatLanes(run.x);
    const int n = FillFlatPoints(box, flat, a.X, yv, zv, ix, iy, iz, home);
    for (int j = 0; j < n; ++j) VisitFlatPoint<M, kIds>(box, flat, j, a);
    StoreFlatLanes(a, run, 0);
}

template <CellDistance M, int kIds>
BASEKIT_AVX512 void SearchRunAvx512(const CubeBox& box, RunLanes& run, int sets, double yv,
                                    double zv, int32_t ix, int32_t iy, int32_t iz,
                                    int32_t home) {
    const double fy = yv - static_cast<double>(iy), fz = zv - static_cast<double>(iz);
    const double ty[3] = {fy * fy, 0.0, (1.0 - fy) * (1.0 - fy)};
    const double tz[3] = {fz * fz, 0.0, (1.0 - fz) * (1.0 - fz)};
    const __m512d ixd = _mm512_set1_pd(static_cast<double>(ix)), one = _mm512_set1_pd(1.0);
    const __m512d far = _mm512_set1_pd(kFar);
    for (int s = 0; s < sets; ++s) {
        const __m512d fx = _mm512_sub_pd(_mm512_load_pd(run.x + 8 * s), ixd);
        const __m512d gx = _mm512_sub_pd(one, fx);
        _mm512_store_pd(run.tx[0] + 8 * s, _mm512_mul_pd(fx, fx));
        _mm512_store_pd(run.tx[1] + 8 * s, _mm512_setzero_pd());
        _mm512_store_pd(run.tx[2] + 8 * s, _mm512_mul_pd(gx, gx));
        for (int k = 0; k < 4; ++k) {
            _mm512_store_pd(run.f[k] + 8 * s, far);
            _mm256_store_si256(reinterpret_cast<__m256i*>(run.id32[k] + 8 * s), _mm256_setzero_si256());
        }
    }

    for (int c = 0; c < 27; ++c) {
        const int32_t cube = home + box.delta[c];
        const int points = box.count[cube];
        if (points == 0) continue;  // visited or not, nothing changes
        const CubeOffset& o = kCubeOrder[c];
        // Which lanes visit: all for the home cube, else those whose squared
        // distance to the cube, (x term + y term) + z term, is below their
        // fourth distance. The sets from the first to the last visiting one
        // are then worked through.
        int first = 0, last = sets - 1;
        if (c == 0) {
            for (int s = 0; s < sets; ++s) run.kmask[s] = 0xFF;
        } else {
            const __m512d yz = _mm512_set1_pd(ty[o.dy + 1]), zz = _mm512_set1_pd(tz[o.dz + 1]);
            const double* tx = run.tx[o.dx + 1];
            first = sets, last = -1;
            for (int s = 0; s < sets; ++s) {
                const __m512d bound = _mm512_add_pd(_mm512_add_pd(_mm512_load_pd(tx + 8 * s), yz), zz);
                const __mmask8 m = _mm512_cmp_pd_mask(_mm512_load_pd(run.f[3] + 8 * s), bound, _CMP_GT_OQ);
                run.kmask[s] = m;
                first = m != 0 && s < first ? s : first;
                last = m != 0 ? s : last;
            }
        }
        const size_t at0 = static_cast<size_t>(cube) * kMaxPoints;
        for (int s = first; s <= last; ++s) {
            const __mmask8 m = run.kmask[s];
            const __m512d X = _mm512_load_pd(run.x + 8 * s);
            __m512d f0 = _mm512_load_pd(run.f[0] + 8 * s), f1 = _mm512_load_pd(run.f[1] + 8 * s),
                    f2 = _mm512_load_pd(run.f[2] + 8 * s), f3 = _mm512_load_pd(run.f[3] + 8 * s);
            if constexpr (kIds <= 1) {
                // Sorted insertion of the distances alone is a min/max network;
                // the values are exactly those of the strict insertion. The
                // nearest identifier changes where d < f0 (strictly).
                __m256i i0 = _mm256_load_si256(reinterpret_cast<const __m256i*>(run.id32[0] + 8 * s));
                for (int k = 0; k < points; ++k) {
                    const __m512d d = RowDistanceAvx512<M>(box, at0 + k, X);
                    if constexpr (kIds == 1) {
                        const __mmask8 c1 = _mm512_mask_cmp_pd_mask(m, d, f0, _CMP_LT_OQ);
                        i0 = _mm256_mask_blend_epi32(
                            c1, i0, _mm256_set1_epi32(static_cast<int32_t>(box.id[at0 + k])));
                    }
                    f3 = _mm512_mask_min_pd(f3, m, f3, _mm512_maskz_max_pd(0xFF, f2, d));
                    f2 = _mm512_mask_min_pd(f2, m, f2, _mm512_maskz_max_pd(0xFF, f1, d));
                    f1 = _mm512_mask_min_pd(f1, m, f1, _mm512_maskz_max_pd(0xFF, f0, d));
                    f0 = _mm512_mask_min_pd(f0, m, f0, d);
                }
                if constexpr (kIds == 1)
                    _mm256_store_si256(reinterpret_cast<__m256i*>(run.id32[0] + 8 * s), i0);
            } else {
                auto* ids = run.id32;
                __m256i i0 = _mm256_load_si256(reinterpret_cast<const __m256i*>(ids[0] + 8 * s));
                __m256i i1 = _mm256_load_si256(reinterpret_cast<const __m256i*>(ids[1] + 8 * s));
                __m256i i2 = _mm256_load_si256(reinterpret_cast<const __m256i*>(ids[2] + 8 * s));
                __m256i i3 = _mm256_load_si256(reinterpret_cast<const __m256i*>(ids[3] + 8 * s));
                for (int k = 0; k < points; ++k) {
                    const __m512d d = RowDistanceAvx512<M>(box, at0 + k, X);
                    const __mmask8 c4 = _mm512_mask_cmp_pd_mask(m, d, f3, _CMP_LT_OQ);
                    const __mmask8 c3 = _mm512_mask_cmp_pd_mask(m, d, f2, _CMP_LT_OQ);
                    const __mmask8 c2 = _mm512_mask_cmp_pd_mask(m, d, f1, _CMP_LT_OQ);
                    const __mmask8 c1 = _mm512_mask_cmp_pd_mask(m, d, f0, _CMP_LT_OQ);
                    f3 = _mm512_mask_blend_pd(c4, f3, _mm512_mask_blend_pd(c3, d, f2));
                    f2 = _mm512_mask_blend_pd(c3, f2, _mm512_mask_blend_pd(c2, d, f1));
                    f1 = _mm512_mask_blend_pd(c2, f1, _mm512_mask_blend_pd(c1, d, f0));
                    f0 = _mm512_mask_blend_pd(c1, f0, d);
                    const __m256i idv = _mm256_set1_epi32(static_cast<int32_t>(box.id[at0 + k]));
                    if constexpr (kIds > 3)
                        i3 = _mm256_mask_blend_epi32(c4, i3, _mm256_mask_blend_epi32(c3, idv, i2));
                    if constexpr (kIds > 2)
                        i2 = _mm256_mask_blend_epi32(c3, i2, _mm256_mask_blend_epi32(c2, idv, i1));
                    if constexpr (kIds > 1)
                        i1 = _mm256_mask_blend_epi32(c2, i1, _mm256_mask_blend_epi32(c1, idv, i0));
                    i0 = _mm256_mask_blend_epi32(c1, i0, idv);
                }
                _mm256_store_si256(reinterpret_cast<__m256i*>(ids[0] + 8 * s), i0);
                _mm256_store_si256(reinterpret_cast<__m256i*>(ids[1] + 8 * s), i1);
                _mm256_store_si256(reinterpret_cast<__m256i*>(ids[2] + 8 * s), i2);
                _mm256_store_si256(reinterpret_cast<__m256i*>(ids[3] + 8 * s), i3);
            }
            _mm512_store_pd(run.f[0] + 8 * s, f0);
            _mm512_store_pd(run.f[1] + 8 * s, f1);
            _mm512_store_pd(run.f[2] + 8 * s, f2);
            _mm512_store_pd(run.f[3] + 8 * s, f3);
        }
    }
}

template <CellDistance M>
BASEKIT_AVX2 inline __m256d RowDistanceAvx2(const CubeBox& box, size_t at, __m256d X) {
    const __m256d x = _mm256_sub_pd(_mm256_set1_pd(box.px[at]), X);
    const __m256d b = _mm256_set1_pd(box.ty[at]), c = _mm256_set1_pd(box.tz[at]);
    const __m256d sign = _mm256_set1_pd(-0.0);
    if constexpr (M == CellDistance::Euclidean) {
        return _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(x, x), b), c);
    } else if constexpr (M == CellDistance::Manhattan) {
        return _mm256_add_pd(_mm256_add_pd(_mm256_andnot_pd(sign, x), b), c);
    } else if constexpr (M == CellDistance::Alternate1) {
        return _mm256_max_pd(_mm256_max_pd(_mm256_andnot_pd(sign, x), b), c);
    } else {
        return DistanceAvx2<M>(x, b, c);
    }
}

template <CellDistance M, int kIds>
BASEKIT_AVX2 void SearchRunAvx2(const CubeBox& box, RunLanes& run, int sets, double yv, double zv,
                                int32_t ix, int32_t iy, int32_t iz, int32_t home) {
    const double fy = yv - static_cast<double>(iy), fz = zv - static_cast<double>(iz);
    const double ty[3] = {fy * fy, 0.0, (1.0 - fy) * (1.0 - fy)};
    const double tz[3] = {fz * fz, 0.0, (1.0 - fz) * (1.0 - fz)};
    const __m256d ixd = _mm256_set1_pd(static_cast<double>(ix)), one = _mm256_set1_pd(1.0);
    for (int s = 0; s < sets; ++s) {
        const __m256d fx = _mm256_sub_pd(_mm256_load_pd(run.x + 4 * s), ixd);
        const __m256d gx = _mm256_sub_pd(one, fx);
        _mm256_store_pd(run.tx[0] + 4 * s, _mm256_mul_pd(fx, fx));
        _mm256_store_pd(run.tx[1] + 4 * s, _mm256_setzero_pd());
        _mm256_store_pd(run.tx[2] + 4 * s, _mm256_mul_pd(gx, gx));
        for (int k = 0; k < 4; ++k) {
            _mm256_store_pd(run.f[k] + 4 * s, _mm256_set1_pd(kFar));
            _mm256_store_si256(reinterpret_cast<__m256i*>(run.id64[k] + 4 * s), _mm256_setzero_si256());
        }
    }

    for (int c = 0; c < 27; ++c) {
        const int32_t cube = home + box.delta[c];
        const int points = box.count[cube];
        if (points == 0) continue;
        const CubeOffset& o = kCubeOrder[c];
        int first = 0, last = sets - 1;
        if (c == 0) {
            for (int s = 0; s < sets; ++s)
                _mm256_store_pd(run.mask + 4 * s, _mm256_castsi256_pd(_mm256_set1_epi64x(-1)));
        } else {
            const __m256d yz = _mm256_set1_pd(ty[o.dy + 1]), zz = _mm256_set1_pd(tz[o.dz + 1]);
            const double* tx = run.tx[o.dx + 1];
            first = sets, last = -1;
            for (int s = 0; s < sets; ++s) {
                const __m256d bound = _mm256_add_pd(_mm256_add_pd(_mm256_load_pd(tx + 4 * s), yz), zz);
                const __m256d m = _mm256_cmp_pd(_mm256_load_pd(run.f[3] + 4 * s), bound, _CMP_GT_OQ);
                _mm256_store_pd(run.mask + 4 * s, m);
                const bool any = _mm256_movemask_pd(m) != 0;
                first = any && s < first ? s : first;
                last = any ? s : last;
            }
        }
        const size_t at0 = static_cast<size_t>(cube) * kMaxPoints;
        for (int s = first; s <= last; ++s) {
            const __m256d m = _mm256_load_pd(run.mask + 4 * s);
            const __m256d X = _mm256_load_pd(run.x + 4 * s);
            LanesAvx2 st;
            for (int k = 0; k < 4; ++k) {
                st.f[k] = _mm256_load_pd(run.f[k] + 4 * s);
                st.id[k] = _mm256_load_si256(reinterpret_cast<const __m256i*>(run.id64[k] + 4 * s));
            }
            for (int k = 0; k < points; ++k) {
                const __m256d d = RowDistanceAvx2<M>(box, at0 + k, X);
                const __m256d c4 = _mm256_and_pd(m, _mm256_cmp_pd(d, st.f[3], _CMP_LT_OQ));
                InsertAvx2<kIds>(st, d, _mm256_set1_epi64x(box.id[at0 + k]), m, c4);
            }
            for (int k = 0; k < 4; ++k) {
                _mm256_store_pd(run.f[k] + 4 * s, st.f[k]);
                _mm256_store_si256(reinterpret_cast<__m256i*>(run.id64[k] + 4 * s), st.id[k]);
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Row driver of the vector paths: tiles of up to kBandRows rows by
// kColumnBlock columns share one cube box.

struct Tile {
    double xs[kBandRows * kColumnBlock];
    double ys[kBandRows * kColumnBlock];
    int32_t ixs[kBandRows * kColumnBlock];
    int32_t iys[kBandRows * kColumnBlock];
    int32_t homes[kColumnBlock];
    CellularResult results[kColumnBlock];
    RunLanes run;
    FlatPoints flat[2];
    CubeBox box;
};

// The style's values of lanes lane0 .. lane0+len-1 of a searched run, as
// CellularStyleValue gives them, with the style chosen once for the run.
void WriteRunStyle(const RunLanes& run, bool ids32, int style, int lane0, int len, float* dst) {
    static constexpr int kMinuend[6] = {1, 2, 2, 3, 3, 3};
    static constexpr int kSubtrahend[6] = {0, 1, 0, 2, 1, 0};
    if (style >= kCellF1 && style <= kCellF4) {
        const double* f = run.f[style] + lane0;
        for (int q = 0; q < len; ++q) dst[q] = static_cast<float>(f[q]);
    } else if (style >= kCellF2MinusF1 && style <= kCellF4MinusF1) {
        const double* a = run.f[kMinuend[style - kCellF2MinusF1]] + lane0;
        const double* b = run.f[kSubtrahend[style - kCellF2MinusF1]] + lane0;
        for (int q = 0; q < len; ++q) dst[q] = static_cast<float>(a[q] - b[q]);
    } else if (style >= kCellF1Cells && style <= kCellF4Cells) {
        const int k = style - kCellF1Cells;
        for (int q = 0; q < len; ++q) {
            const uint32_t id = ids32 ? run.id32[k][lane0 + q]
                                      : static_cast<uint32_t>(run.id64[k][lane0 + q]);
            dst[q] = static_cast<float>((id >> 24) / 255.0);
        }
    } else {
        for (int q = 0; q < len; ++q) dst[q] = 0.0f;
    }
}

// Searches one row of a tile (n samples from `at` on) and writes its values
// of `style` to dst.
template <CellDistance M, int kIds>
void SearchTileRow(Tile& t, size_t at, int n, double z, int32_t iz, uint32_t seed, int style,
                   bool boxed, bool distorted, VectorPath path, float* dst) {
    const double* xs = t.xs + at;
    const double* ys = t.ys + at;
    const int32_t* ixs = t.ixs + at;
    const int32_t* iys = t.iys + at;
    CellularResult* out = t.results;
    int i = 0;
    if (boxed && !distorted) {
        // Undistorted: one y for the whole row, so runs of equal home cubes.
        FillRowTerms<M>(t.box, ys[0], z, iys[0]);
        const int width = path == VectorPath::Avx512 ? 8 : 4;
        while (i < n) {
            int end = i + 1;
            while (end < n && ixs[end] == ixs[i]) ++end;
            const int len = end - i, sets = (len + width - 1) / width;
            // Spare lanes repeat the last sample; their results are dropped.
            for (int q = 0; q < sets * width; ++q) t.run.x[q] = xs[i + (q < len ? q : len - 1)];
            const int32_t home = t.box.Index(ixs[i], iys[i], iz);
            if (path == VectorPath::Avx512 && sets == 1) {
                // Pair it with the next run when that is short too.
                int next = end + 1;
                while (next < n && ixs[next] == ixs[end]) ++next;
                if (end < n && next - end <= width) {
                    const int len2 = next - end;
                    for (int q = 0; q < width; ++q)
                        t.run.x[width + q] = xs[end + (q < len2 ? q : len2 - 1)];
                    const int32_t ix2[2] = {ixs[i], ixs[end]};
                    const int32_t home2[2] = {home, t.box.Index(ixs[end], iys[end], iz)};
                    SearchShortRunsAvx512<M, kIds>(t.box, t.run, t.flat, ys[0], z, ix2, iys[i], iz,
                                                   home2);
                    WriteRunStyle(t.run, true, style, 0, len, dst + i);
                    WriteRunStyle(t.run, true, style, width, len2, dst + end);
                    i = next;
                    continue;
                }
                SearchShortRunAvx512<M, kIds>(t.box, t.run, t.flat[0], ys[0], z, ixs[i], iys[i],
                                              iz, home);
            } else if (path == VectorPath::Avx512) {
                SearchRunAvx512<M, kIds>(t.box, t.run, sets, ys[0], z, ixs[i], iys[i], iz, home);
            } else {
                SearchRunAvx2<M, kIds>(t.box, t.run, sets, ys[0], z, ixs[i], iys[i], iz, home);
            }
            WriteRunStyle(t.run, path == VectorPath::Avx512, style, 0, len, dst + i);
            i = end;
        }
        return;
    }
    if (!boxed) {
        // Far-flung or widely spread positions: search each lane's cubes directly.
        if (path == VectorPath::Avx512) {
            for (; i + 8 <= n; i += 8) SearchAvx512<M>(xs + i, ys + i, z, seed, out + i);
        }
        for (; i + 4 <= n; i += 4) SearchAvx2<M>(xs + i, ys + i, z, seed, out + i);
    } else {
        for (int k = 0; k < n; ++k) t.homes[k] = t.box.Index(ixs[k], iys[k], iz);
        if (path == VectorPath::Avx512) {
            for (; i + 8 <= n; i += 8)
                SearchBoxAvx512<M, kIds>(t.box, xs + i, ys + i, z, ixs + i, iys + i, iz,
                                         t.homes + i, out + i);
        }
        for (; i + 4 <= n; i += 4)
            SearchBoxAvx2<M, kIds>(t.box, xs + i, ys + i, z, ixs + i, iys + i, iz, t.homes + i,
                                   out + i);
    }
    for (; i < n; ++i) out[i] = SearchPlain<M>(xs[i], ys[i], z, seed);
    for (int k = 0; k < n; ++k) dst[k] = CellularStyleValue(out[k], style);
}

// Sample positions: X = (wx - anchor x) * scale + h * distortion x, likewise Y.
struct Positions {
    const CellularRowSetup& s;
    double RowY(int j) const { return (s.worldY[j] - s.anchorY) * s.scale; }
    double ColumnX(int i) const { return (s.worldX[i] - s.anchorX) * s.scale; }
};

template <CellDistance M, int kIds>
void SearchRowsVector(const CellularRowSetup& s, int firstRow, int lastRow, const float* heights,
                      float* out, VectorPath path) {
    const Positions pos{s};
    const int32_t iz = FloorToCube(s.shape);
    auto tile = std::make_unique<Tile>();
    for (int band = firstRow; band <= lastRow; band += kBandRows) {
        const int rows = lastRow - band + 1 < kBandRows ? lastRow - band + 1 : kBandRows;
        for (int col = 0; col < s.width; col += kColumnBlock) {
            const int n = s.width - col < kColumnBlock ? s.width - col : kColumnBlock;
            int64_t loX = INT64_MAX, hiX = INT64_MIN, loY = INT64_MAX, hiY = INT64_MIN;
            for (int r = 0; r < rows; ++r) {
                const int j = band + r;
                const double y = pos.RowY(j);
                for (int i = 0; i < n; ++i) {
                    const size_t at = static_cast<size_t>(r) * kColumnBlock + i;
                    double x = pos.ColumnX(col + i), yy = y;
                    if (heights != nullptr) {
                        const double h = heights[static_cast<size_t>(j) * s.width + col + i];
                        x = x + h * s.distortX;
                        yy = yy + h * s.distortY;
                    }
                    tile->xs[at] = x;
                    tile->ys[at] = yy;
                    tile->ixs[at] = FloorToCube(x);
                    tile->iys[at] = FloorToCube(yy);
                    loX = tile->ixs[at] < loX ? tile->ixs[at] : loX;
                    hiX = tile->ixs[at] > hiX ? tile->ixs[at] : hiX;
                    loY = tile->iys[at] < loY ? tile->iys[at] : loY;
                    hiY = tile->iys[at] > hiY ? tile->iys[at] : hiY;
                }
            }
            bool bandBoxed = FillCubeBox(loX, hiX, loY, hiY, iz, s.seed, tile->box);
            for (int r = 0; r < rows; ++r) {
                const size_t at = static_cast<size_t>(r) * kColumnBlock;
                bool boxed = bandBoxed;
                if (!bandBoxed) {
                    // Too wide a band for one box: try the row on its own.
                    int64_t rx0 = INT64_MAX, rx1 = INT64_MIN, ry0 = INT64_MAX, ry1 = INT64_MIN;
                    for (int i = 0; i < n; ++i) {
                        rx0 = tile->ixs[at + i] < rx0 ? tile->ixs[at + i] : rx0;
                        rx1 = tile->ixs[at + i] > rx1 ? tile->ixs[at + i] : rx1;
                        ry0 = tile->iys[at + i] < ry0 ? tile->iys[at + i] : ry0;
                        ry1 = tile->iys[at + i] > ry1 ? tile->iys[at + i] : ry1;
                    }
                    boxed = FillCubeBox(rx0, rx1, ry0, ry1, iz, s.seed, tile->box);
                }
                SearchTileRow<M, kIds>(*tile, at, n, s.shape, iz, s.seed, s.style, boxed,
                                       heights != nullptr, path,
                                       out + static_cast<size_t>(band + r) * s.width + col);
            }
        }
    }
}

template <CellDistance M>
void SearchRows(const CellularRowSetup& s, int firstRow, int lastRow, const float* heights,
                float* out, VectorPath path) {
    if (path == VectorPath::Plain) {
        const Positions pos{s};
        for (int j = firstRow; j <= lastRow; ++j) {
            const double y = pos.RowY(j);
            for (int i = 0; i < s.width; ++i) {
                const size_t at = static_cast<size_t>(j) * s.width + i;
                double x = pos.ColumnX(i), yy = y;
                if (heights != nullptr) {
                    const double h = heights[at];
                    x = x + h * s.distortX;
                    yy = yy + h * s.distortY;
                }
                out[at] = CellularStyleValue(SearchPlain<M>(x, yy, s.shape, s.seed), s.style);
            }
        }
        return;
    }
    // Identifiers the style reads: "F<k> Cells" needs the first k (2 and 3
    // share the code that tracks all four).
    switch (s.style) {
        case kCellF1Cells:
            return SearchRowsVector<M, 1>(s, firstRow, lastRow, heights, out, path);
        case kCellF2Cells:
        case kCellF3Cells:
        case kCellF4Cells:
            return SearchRowsVector<M, 4>(s, firstRow, lastRow, heights, out, path);
        default:
            return SearchRowsVector<M, 0>(s, firstRow, lastRow, heights, out, path);
    }
}

#undef BASEKIT_AVX2
#undef BASEKIT_AVX512

}  // namespace

CellularResult CellularSearch(double x, double y, double z, uint32_t seed, CellDistance distance) {
    switch (distance) {
        case CellDistance::Euclidean:
            return SearchPlain<CellDistance::Euclidean>(x, y, z, seed);
        case CellDistance::Manhattan:
            return SearchPlain<CellDistance::Manhattan>(x, y, z, seed);
        case CellDistance::Alternate1:
            return SearchPlain<CellDistance::Alternate1>(x, y, z, seed);
        case CellDistance::Alternate2:
            return SearchPlain<CellDistance::Alternate2>(x, y, z, seed);
    }
    return SearchPlain<CellDistance::Euclidean>(x, y, z, seed);
}

float CellularStyleValue(const CellularResult& r, int style) {
    switch (style) {
        case kCellF1:
        case kCellF2:
        case kCellF3:
        case kCellF4:
            return static_cast<float>(r.f[style]);
        case kCellF2MinusF1:
            return static_cast<float>(r.f[1] - r.f[0]);
        case kCellF3MinusF2:
            return static_cast<float>(r.f[2] - r.f[1]);
        case kCellF3MinusF1:
            return static_cast<float>(r.f[2] - r.f[0]);
        case kCellF4MinusF3:
            return static_cast<float>(r.f[3] - r.f[2]);
        case kCellF4MinusF2:
            return static_cast<float>(r.f[3] - r.f[1]);
        case kCellF4MinusF1:
            return static_cast<float>(r.f[3] - r.f[0]);
        case kCellF1Cells:
        case kCellF2Cells:
        case kCellF3Cells:
        case kCellF4Cells:
            return static_cast<float>((r.id[style - kCellF1Cells] >> 24) / 255.0);
        default:
            return 0.0f;
    }
}

void CellularRows(const CellularRowSetup& setup, int firstRow, int lastRow, const float* heights,
                  float* out, VectorPath path) {
    firstRow = firstRow < 0 ? 0 : firstRow;
    lastRow = lastRow > setup.height - 1 ? setup.height - 1 : lastRow;
    if (setup.width <= 0 || firstRow > lastRow || setup.worldX == nullptr ||
        setup.worldY == nullptr)
        return;
    path = UsablePath(path);
    switch (setup.distance) {
        case CellDistance::Euclidean:
            return SearchRows<CellDistance::Euclidean>(setup, firstRow, lastRow, heights, out, path);
        case CellDistance::Manhattan:
            return SearchRows<CellDistance::Manhattan>(setup, firstRow, lastRow, heights, out, path);
        case CellDistance::Alternate1:
            return SearchRows<CellDistance::Alternate1>(setup, firstRow, lastRow, heights, out, path);
        case CellDistance::Alternate2:
            return SearchRows<CellDistance::Alternate2>(setup, firstRow, lastRow, heights, out, path);
    }
}

}  // namespace basekit
