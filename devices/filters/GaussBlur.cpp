#include "devices/filters/GaussBlur.h"

#include <immintrin.h>

#include <algorithm>
#include <utility>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {

// ---------------------------------------------------------------------------
// The device

static const ParamSpec kParameters[] = {
    {"Blur type", kParamChoice, 1, 0, 2, 0, "The type of blurring filter to use",
     {"Uniform (fastest)", "Gaussian", "Motion Blur"}},
    {"Blur radius", kParamInteger, 1, 0, 128, 0,
     "How large the blur kernel is; this controls how strongly the terrain is effected"},
    {"Scale-independant", kParamBoolean, 1, 0, 1, 0,
     "Scale independence keeps the blur amount the same for both low and high resolution "
     "terrains"},
    {"Direction", kParamReal, 0.0, 0.0, 180.0, 0, "Direction of Motion Blur", {}, 0,
     {"Blur type", kBlurMotion}},
};

GaussBlur::GaussBlur() {
    SetPortCount(this, 1, 1, kHeightField | kBitmap);
    DeclareParameters(this, kParameters);
}

bool GaussBlur::Build(const BuildContext& context) {
    PacketRef input = TakePrepared(context, 0);
    if (!input) input = InputPacket(context, 0);
    if (!input) return false;
    const uint32_t kind = input->GetKind();
    if (kind != kHeightField && kind != kBitmap) return false;

    const int32_t type = ParamInt(this, "Blur type");
    int32_t radius = ParamInt(this, "Blur radius");
    if (ParamBool(this, "Scale-independant")) radius = ScaleIndependent(radius, input->grid);
    if (radius <= 0) {
        StoreOutput(context, input, 0);
        return true;
    }
    // The width alone bounds the radius, also along y.
    if (radius >= input->grid.width) radius = input->grid.width - 1;

    BlurHelper helper(this, context, type, input, radius);
    if (!helper.Run()) return false;
    if (type == kBlurUniform || type == kBlurGaussian) {
        helper.NextPass();
        helper.pass = 1;
        if (!helper.Run()) return false;
    }
    StoreOutput(context, helper.Result(), 0);
    return true;
}

bool GaussBlur::AfterLoad(uint8_t version) {
    if (version == 1) {
        // Version 1 had four blur types; the old 2 is the box, the old 3 motion.
        ParamValue* type = GetParameter(this, "Blur type");
        if (type->i == 2) type->i = 0;
        if (type->i == 3) type->i = 2;
    }
    return true;
}

BlurHelper::BlurHelper(Device* device, const BuildContext& context, int32_t type,
                       const PacketRef& source, int32_t radius)
    : source(source),
      type(type),
      kind(source->GetKind()),
      kernel(GaussianKernel(radius)),
      radius(radius),
      lastRow(source->grid.height - 1),
      device(device),
      context(context) {
    source->Duplicate(destination);
    const float direction = ParamFloat(device, "Direction");
    cosine = Orogen::Cos(direction * 0.017453292f);
    sine = Orogen::Sin(direction * 0.017453292f);
}

bool BlurHelper::Run() {
    return RunRows(
        context, device, firstRow, lastRow,
        [this](int32_t first, int32_t last) {
            ProcessRows(first, last);
            return true;
        },
        jobs);
}

void BlurHelper::NextPass() {
    if (type != kBlurMotion) std::swap(source, destination);
}

void BlurHelper::ProcessRows(int32_t first, int32_t last) {
    if (kind != kHeightField && kind != kBitmap) return;
    const BlurPlane plane{source->samples, destination->samples, source->grid.width,
                          source->grid.height, kind == kBitmap ? 3 : 1};
    switch (type) {
        case kBlurUniform:
            BoxBlurRows(plane, radius, pass, first, last);
            break;
        case kBlurGaussian:
            GaussianBlurRows(plane, kernel.data(), radius, pass, first, last);
            break;
        case kBlurMotion:
            if (pass == 0) MotionBlurRows(plane, kernel.data(), radius, cosine, sine, first, last);
            break;
        default:
            break;
    }
}

// ---------------------------------------------------------------------------
// The row kernels

std::vector<float> GaussianKernel(int32_t radius) {
    if (radius <= 0) return {1.0f};
    const int32_t n = 2 * radius + 1;
    const double sigma = radius / 3.0;
    const double spread = 1.0 / (2.0 * sigma * sigma);
    const double scale = 1.0 / (std::sqrt(6.283187) * sigma);
    std::vector<double> w(static_cast<size_t>(n));
    double sum = 0.0;
    for (int32_t i = 0; i < n; ++i) {
        const double k = i - radius;
        w[static_cast<size_t>(i)] = Orogen::Exp(-(k * k) * spread) * scale;
        sum += w[static_cast<size_t>(i)];
    }
    std::vector<float> weights(static_cast<size_t>(n));
    for (int32_t i = 0; i < n; ++i)
        weights[static_cast<size_t>(i)] = static_cast<float>(w[static_cast<size_t>(i)] / sum);
    return weights;
}

namespace {

// The inner sums of both passes have one shape: out[j] combines taps[t][j]
// over t = 0 .. count-1 in order. Pass 0 points the taps at shifted copies of
// one row, pass 1 at the clamped neighbouring rows. With weights the sum is
// w[0]*tap0 + w[1]*tap1 + ...; without, (tap0 + tap1 + ...) * factor.
struct Taps {
    const float* const* rows;
    int32_t count;
    const float* weights;  // nullptr: box
    float factor;          // box only
};

inline float SumPlain(const Taps& taps, size_t j) {
    if (taps.weights == nullptr) {
        float acc = taps.rows[0][j];
        for (int32_t t = 1; t < taps.count; ++t) acc = acc + taps.rows[t][j];
        return acc * taps.factor;
    }
    float acc = taps.weights[0] * taps.rows[0][j];
    for (int32_t t = 1; t < taps.count; ++t) acc = acc + taps.weights[t] * taps.rows[t][j];
    return acc;
}

// The same sum for channel c of point x of a row, each tap's x clamped into
// the row.
float EdgeSum(const Taps& taps, const float* row, int32_t width, size_t C, int32_t x, size_t c) {
    const int32_t radius = taps.count / 2;
    auto tap = [&](int32_t t) {
        return row[static_cast<size_t>(std::clamp(x + t - radius, 0, width - 1)) * C + c];
    };
    if (taps.weights == nullptr) {
        float acc = tap(0);
        for (int32_t t = 1; t < taps.count; ++t) acc = acc + tap(t);
        return acc * taps.factor;
    }
    float acc = taps.weights[0] * tap(0);
    for (int32_t t = 1; t < taps.count; ++t) acc = acc + taps.weights[t] * tap(t);
    return acc;
}

void SumTapsPlain(const Taps& taps, size_t first, size_t end, float* out) {
    for (size_t j = first; j < end; ++j) out[j] = SumPlain(taps, j);
}

// Eight (or sixteen) vectors at a time keep enough independent sums in
// flight to hide the adder's latency; the tail goes one vector at a time and
// then by the plain loop.
__attribute__((target("avx2"))) void SumTapsAvx2(const Taps& taps, size_t j, size_t end,
                                                  float* out) {
    constexpr int kVectors = 8;
    const bool box = taps.weights == nullptr;
    const __m256 factor = _mm256_set1_ps(taps.factor);
    for (; j + 8 * kVectors <= end; j += 8 * kVectors) {
        __m256 acc[kVectors];
        const float* r0 = taps.rows[0] + j;
        if (box) {
            for (int a = 0; a < kVectors; ++a) acc[a] = _mm256_loadu_ps(r0 + 8 * a);
            for (int32_t t = 1; t < taps.count; ++t) {
                const float* r = taps.rows[t] + j;
                for (int a = 0; a < kVectors; ++a)
                    acc[a] = _mm256_add_ps(acc[a], _mm256_loadu_ps(r + 8 * a));
            }
            for (int a = 0; a < kVectors; ++a)
                _mm256_storeu_ps(out + j + 8 * a, _mm256_mul_ps(acc[a], factor));
        } else {
            const __m256 w0 = _mm256_set1_ps(taps.weights[0]);
            for (int a = 0; a < kVectors; ++a) acc[a] = _mm256_mul_ps(w0, _mm256_loadu_ps(r0 + 8 * a));
            for (int32_t t = 1; t < taps.count; ++t) {
                const float* r = taps.rows[t] + j;
                const __m256 w = _mm256_set1_ps(taps.weights[t]);
                for (int a = 0; a < kVectors; ++a)
                    acc[a] = _mm256_add_ps(acc[a], _mm256_mul_ps(w, _mm256_loadu_ps(r + 8 * a)));
            }
            for (int a = 0; a < kVectors; ++a) _mm256_storeu_ps(out + j + 8 * a, acc[a]);
        }
    }
    for (; j + 8 <= end; j += 8) {
        __m256 acc;
        if (box) {
            acc = _mm256_loadu_ps(taps.rows[0] + j);
            for (int32_t t = 1; t < taps.count; ++t)
                acc = _mm256_add_ps(acc, _mm256_loadu_ps(taps.rows[t] + j));
            acc = _mm256_mul_ps(acc, factor);
        } else {
            acc = _mm256_mul_ps(_mm256_set1_ps(taps.weights[0]), _mm256_loadu_ps(taps.rows[0] + j));
            for (int32_t t = 1; t < taps.count; ++t)
                acc = _mm256_add_ps(acc, _mm256_mul_ps(_mm256_set1_ps(taps.weights[t]),
                                                       _mm256_loadu_ps(taps.rows[t] + j)));
        }
        _mm256_storeu_ps(out + j, acc);
    }
    SumTapsPlain(taps, j, end, out);
}

__attribute__((target("avx512f,avx2"))) void SumTapsAvx512(const Taps& taps, size_t j,
                                                            size_t end, float* out) {
    constexpr int kVectors = 8;
    const bool box = taps.weights == nullptr;
    const __m512 factor = _mm512_set1_ps(taps.factor);
    for (; j + 16 * kVectors <= end; j += 16 * kVectors) {
        __m512 acc[kVectors];
        const float* r0 = taps.rows[0] + j;
        if (box) {
            for (int a = 0; a < kVectors; ++a) acc[a] = _mm512_loadu_ps(r0 + 16 * a);
            for (int32_t t = 1; t < taps.count; ++t) {
                const float* r = taps.rows[t] + j;
                for (int a = 0; a < kVectors; ++a)
                    acc[a] = _mm512_add_ps(acc[a], _mm512_loadu_ps(r + 16 * a));
            }
            for (int a = 0; a < kVectors; ++a)
                _mm512_storeu_ps(out + j + 16 * a, _mm512_mul_ps(acc[a], factor));
        } else {
            const __m512 w0 = _mm512_set1_ps(taps.weights[0]);
            for (int a = 0; a < kVectors; ++a) acc[a] = _mm512_mul_ps(w0, _mm512_loadu_ps(r0 + 16 * a));
            for (int32_t t = 1; t < taps.count; ++t) {
                const float* r = taps.rows[t] + j;
                const __m512 w = _mm512_set1_ps(taps.weights[t]);
                for (int a = 0; a < kVectors; ++a)
                    acc[a] = _mm512_add_ps(acc[a], _mm512_mul_ps(w, _mm512_loadu_ps(r + 16 * a)));
            }
            for (int a = 0; a < kVectors; ++a) _mm512_storeu_ps(out + j + 16 * a, acc[a]);
        }
    }
    for (; j + 16 <= end; j += 16) {
        __m512 acc;
        if (box) {
            acc = _mm512_loadu_ps(taps.rows[0] + j);
            for (int32_t t = 1; t < taps.count; ++t)
                acc = _mm512_add_ps(acc, _mm512_loadu_ps(taps.rows[t] + j));
            acc = _mm512_mul_ps(acc, factor);
        } else {
            acc = _mm512_mul_ps(_mm512_set1_ps(taps.weights[0]), _mm512_loadu_ps(taps.rows[0] + j));
            for (int32_t t = 1; t < taps.count; ++t)
                acc = _mm512_add_ps(acc, _mm512_mul_ps(_mm512_set1_ps(taps.weights[t]),
                                                       _mm512_loadu_ps(taps.rows[t] + j)));
        }
        _mm512_storeu_ps(out + j, acc);
    }
    SumTapsAvx2(taps, j, end, out);
}

// Pass 0 on AVX-512 from a copy of the row padded with its clamped border
// points and aligned to 64 bytes: tap t of outputs j..j+15 is pad[j + C t ..],
// put together from two aligned loads by one permute rather than read by a
// load that straddles cache lines. Every output is the same sum as above.
__attribute__((target("avx512f,avx2"))) void SumPaddedRowAvx512(const Taps& taps,
                                                                 const float* pad, size_t C,
                                                                 size_t n, float* out) {
    constexpr int kVectors = 8;
    const bool box = taps.weights == nullptr;
    const __m512 factor = _mm512_set1_ps(taps.factor);
    const __m512i lanes = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    size_t j = 0;
    for (; j + 16 * kVectors <= n; j += 16 * kVectors) {
        __m512 acc[kVectors] = {};
        for (int32_t t = 0; t < taps.count; ++t) {
            const size_t o = j + C * static_cast<size_t>(t);
            const float* base = pad + (o & ~size_t{15});
            const int shift = static_cast<int>(o & 15);
            __m512 v[kVectors];
            if (shift == 0) {
                for (int a = 0; a < kVectors; ++a) v[a] = _mm512_load_ps(base + 16 * a);
            } else {
                const __m512i index = _mm512_add_epi32(lanes, _mm512_set1_epi32(shift));
                __m512 lo = _mm512_load_ps(base);
                for (int a = 0; a < kVectors; ++a) {
                    const __m512 hi = _mm512_load_ps(base + 16 * (a + 1));
                    v[a] = _mm512_permutex2var_ps(lo, index, hi);
                    lo = hi;
                }
            }
            if (box) {
                for (int a = 0; a < kVectors; ++a) acc[a] = t == 0 ? v[a] : _mm512_add_ps(acc[a], v[a]);
            } else {
                const __m512 w = _mm512_set1_ps(taps.weights[t]);
                for (int a = 0; a < kVectors; ++a) {
                    const __m512 term = _mm512_mul_ps(w, v[a]);
                    acc[a] = t == 0 ? term : _mm512_add_ps(acc[a], term);
                }
            }
        }
        for (int a = 0; a < kVectors; ++a)
            _mm512_storeu_ps(out + j + 16 * a, box ? _mm512_mul_ps(acc[a], factor) : acc[a]);
    }
    // The rest as shifted rows of the padded copy.
    std::vector<const float*> rows(static_cast<size_t>(taps.count));
    for (int32_t t = 0; t < taps.count; ++t) rows[static_cast<size_t>(t)] = pad + C * static_cast<size_t>(t);
    const Taps rest{rows.data(), taps.count, taps.weights, taps.factor};
    SumTapsAvx2(rest, j, n, out);
}

void SumTaps(const Taps& taps, size_t first, size_t end, float* out, VectorPath path) {
    if (first >= end) return;
    switch (path) {
        case VectorPath::Avx512:
            return SumTapsAvx512(taps, first, end, out);
        case VectorPath::Avx2:
            return SumTapsAvx2(taps, first, end, out);
        case VectorPath::Plain:
            return SumTapsPlain(taps, first, end, out);
    }
}

// The large-radius AVX-512 form of both passes: the taps of a block of
// outputs are laid out as consecutive aligned vectors V[0], V[1], ... with
// each lane its own output line, so output i of every lane is the sum over t
// of V[i + stride * t], read from the first-level cache without shuffles or
// loads across cache lines. Pass 0 gets there by transposing 16 rows at a
// time, pass 1 by copying a strip of columns out of the source rows.

// 16 x 16 transpose of r. The zero-masked forms with every lane set are the
// plain instructions; GCC 12 warns about the undefined register its plain
// forms start from.
__attribute__((target("avx512f,avx2"), always_inline)) inline void Transpose16(__m512 r[16]) {
    __m512 t[16];
    for (int i = 0; i < 8; ++i) {
        t[2 * i] = _mm512_maskz_unpacklo_ps(0xFFFF, r[2 * i], r[2 * i + 1]);
        t[2 * i + 1] = _mm512_maskz_unpackhi_ps(0xFFFF, r[2 * i], r[2 * i + 1]);
    }
    for (int i = 0; i < 4; ++i) {
        r[4 * i + 0] = _mm512_shuffle_ps(t[4 * i], t[4 * i + 2], 0x44);
        r[4 * i + 1] = _mm512_shuffle_ps(t[4 * i], t[4 * i + 2], 0xEE);
        r[4 * i + 2] = _mm512_shuffle_ps(t[4 * i + 1], t[4 * i + 3], 0x44);
        r[4 * i + 3] = _mm512_shuffle_ps(t[4 * i + 1], t[4 * i + 3], 0xEE);
    }
    for (int j = 0; j < 4; ++j) {
        const __m512 abLo = _mm512_maskz_shuffle_f32x4(0xFFFF, r[j], r[4 + j], 0x44);
        const __m512 abHi = _mm512_maskz_shuffle_f32x4(0xFFFF, r[j], r[4 + j], 0xEE);
        const __m512 cdLo = _mm512_maskz_shuffle_f32x4(0xFFFF, r[8 + j], r[12 + j], 0x44);
        const __m512 cdHi = _mm512_maskz_shuffle_f32x4(0xFFFF, r[8 + j], r[12 + j], 0xEE);
        t[j] = _mm512_maskz_shuffle_f32x4(0xFFFF, abLo, cdLo, 0x88);
        t[4 + j] = _mm512_maskz_shuffle_f32x4(0xFFFF, abLo, cdLo, 0xDD);
        t[8 + j] = _mm512_maskz_shuffle_f32x4(0xFFFF, abHi, cdHi, 0x88);
        t[12 + j] = _mm512_maskz_shuffle_f32x4(0xFFFF, abHi, cdHi, 0xDD);
    }
    for (int i = 0; i < 16; ++i) r[i] = t[i];
}

// acc[a] = the sum over t of V[a + stride * t] for a = 0..15, V 64-byte aligned.
__attribute__((target("avx512f,avx2"), always_inline)) inline void SumBlock16(
    const Taps& taps, const float* V, size_t stride, __m512 acc[16]) {
    const size_t step = 16 * stride;
    if (taps.weights == nullptr) {
        for (int a = 0; a < 16; ++a) acc[a] = _mm512_load_ps(V + 16 * a);
        const float* r = V;
        for (int32_t t = 1; t < taps.count; ++t) {
            r += step;
            for (int a = 0; a < 16; ++a) acc[a] = _mm512_add_ps(acc[a], _mm512_load_ps(r + 16 * a));
        }
        const __m512 factor = _mm512_set1_ps(taps.factor);
        for (int a = 0; a < 16; ++a) acc[a] = _mm512_mul_ps(acc[a], factor);
    } else {
        const __m512 w0 = _mm512_set1_ps(taps.weights[0]);
        for (int a = 0; a < 16; ++a) acc[a] = _mm512_mul_ps(w0, _mm512_load_ps(V + 16 * a));
        const float* r = V;
        for (int32_t t = 1; t < taps.count; ++t) {
            r += step;
            const __m512 w = _mm512_set1_ps(taps.weights[t]);
            for (int a = 0; a < 16; ++a)
                acc[a] = _mm512_add_ps(acc[a], _mm512_mul_ps(w, _mm512_load_ps(r + 16 * a)));
        }
    }
}

// 64-byte aligned scratch of `vectors` zeroed 16-float vectors.
struct VectorScratch {
    std::vector<float> storage;
    float* data = nullptr;
    explicit VectorScratch(size_t vectors) : storage(vectors * 16 + 16) {
        data = storage.data();
        data += ((64 - (reinterpret_cast<uintptr_t>(data) & 63)) & 63) / sizeof(float);
    }
};

// Pass 0 rows firstRow..lastRow, 16 rows at a time (a last group short of
// 16 rows starts earlier and repeats some rows, or reads clamped rows it
// does not write).
__attribute__((target("avx512f,avx2"))) void PassRowsTransposedAvx512(
    const BlurPlane& p, const Taps& taps, int32_t radius, int32_t firstRow, int32_t lastRow) {
    const size_t C = static_cast<size_t>(p.channels);
    const size_t n = static_cast<size_t>(p.width) * C;
    const size_t side = static_cast<size_t>(radius) * C;
    const size_t blocks = (n + 15) / 16;
    // T[m] holds padded point-float m of the 16 rows; 16 spare vectors let
    // the last block run whole.
    VectorScratch scratch(blocks * 16 + 2 * side + 16);
    float* T = scratch.data;
    const float* src[16];
    __m512 v[16];
    for (int32_t g = firstRow; g <= lastRow; g += 16) {
        const int32_t start = lastRow - firstRow >= 15 ? std::min(g, lastRow - 15) : g;
        for (int r = 0; r < 16; ++r)
            src[r] = p.source + static_cast<size_t>(std::min(start + r, p.height - 1)) * n;
        for (size_t b = 0; b < blocks; ++b) {
            const size_t e = 16 * b;
            const size_t m = std::min<size_t>(16, n - e);
            const __mmask16 mask = static_cast<__mmask16>((1u << m) - 1);
            for (int r = 0; r < 16; ++r) v[r] = _mm512_maskz_loadu_ps(mask, src[r] + e);
            Transpose16(v);
            for (size_t q = 0; q < m; ++q) _mm512_store_ps(T + 16 * (side + e + q), v[q]);
        }
        for (size_t e = 0; e < side; ++e) {
            _mm512_store_ps(T + 16 * e, _mm512_load_ps(T + 16 * (side + e % C)));
            _mm512_store_ps(T + 16 * (side + n + e), _mm512_load_ps(T + 16 * (side + n - C + e % C)));
        }
        for (size_t b = 0; b < blocks; ++b) {
            const size_t e = 16 * b;
            SumBlock16(taps, T + 16 * e, C, v);
            Transpose16(v);
            const size_t m = std::min<size_t>(16, n - e);
            const __mmask16 mask = static_cast<__mmask16>((1u << m) - 1);
            for (int r = 0; r < 16; ++r) {
                const int32_t y = start + r;
                if (y < g || y > lastRow) continue;
                _mm512_mask_storeu_ps(p.destination + static_cast<size_t>(y) * n + e, mask, v[r]);
            }
        }
    }
}

// Pass 1 rows firstRow..lastRow: strips of up to 16 column vectors, rows
// in chunks; each chunk's source rows (with R more on either side, clamped)
// are copied once into one aligned column of vectors per column vector.
__attribute__((target("avx512f,avx2"))) void PassColumnsCopiedAvx512(
    const BlurPlane& p, const Taps& taps, int32_t radius, int32_t firstRow, int32_t lastRow) {
    constexpr size_t kStrip = 16;
    constexpr int32_t kChunkRows = 256;
    const size_t n = static_cast<size_t>(p.width) * static_cast<size_t>(p.channels);
    const int32_t chunk = std::min(kChunkRows, lastRow - firstRow + 1);
    const size_t span = static_cast<size_t>(chunk) + 2 * static_cast<size_t>(radius);
    const size_t column = ((static_cast<size_t>(chunk) + 15) & ~size_t{15}) + 2 * static_cast<size_t>(radius);
    VectorScratch scratch(kStrip * column);
    __m512 acc[16];
    for (size_t e0 = 0; e0 < n; e0 += 16 * kStrip) {
        const size_t vectors = std::min(kStrip, (n - e0 + 15) / 16);
        const size_t lastFloats = n - e0 - 16 * (vectors - 1);
        const __mmask16 lastMask = static_cast<__mmask16>((1u << std::min<size_t>(16, lastFloats)) - 1);
        for (int32_t y0 = firstRow; y0 <= lastRow; y0 += chunk) {
            const int32_t rows = std::min(chunk, lastRow - y0 + 1);
            const size_t copied = static_cast<size_t>(rows) + (span - static_cast<size_t>(chunk));
            for (size_t m = 0; m < copied; ++m) {
                const int32_t sy = std::clamp(y0 - radius + static_cast<int32_t>(m), 0, p.height - 1);
                const float* row = p.source + static_cast<size_t>(sy) * n + e0;
                for (size_t q = 0; q + 1 < vectors; ++q)
                    _mm512_store_ps(scratch.data + 16 * (q * column + m), _mm512_loadu_ps(row + 16 * q));
                _mm512_store_ps(scratch.data + 16 * ((vectors - 1) * column + m),
                                _mm512_maskz_loadu_ps(lastMask, row + 16 * (vectors - 1)));
            }
            for (size_t q = 0; q < vectors; ++q) {
                const __mmask16 mask = q + 1 < vectors ? __mmask16{0xFFFF} : lastMask;
                for (int32_t i = 0; i < rows; i += 16) {
                    SumBlock16(taps, scratch.data + 16 * (q * column + static_cast<size_t>(i)), 1, acc);
                    const int32_t m = std::min(16, rows - i);
                    for (int32_t a = 0; a < m; ++a)
                        _mm512_mask_storeu_ps(
                            p.destination + static_cast<size_t>(y0 + i + a) * n + e0 + 16 * q, mask,
                            acc[a]);
                }
            }
        }
    }
}

// Below this radius the shuffles of the transposes and the copies cost more
// than the sums they speed up.
constexpr int32_t kTransposeRadius = 8;

// Pass 1 works through columns in strips so the 2R + 1 source rows of a strip
// (about 1 MiB of them) stay in the second-level cache from one output row to
// the next; wide strips keep the hardware prefetcher streaming.
size_t StripFloats(int32_t taps) {
    const size_t fit = (size_t{262144} / static_cast<size_t>(taps)) & ~size_t{127};
    return std::clamp(fit, size_t{256}, size_t{4096});
}

void BlurRows(const BlurPlane& p, const float* weights, float factor, int32_t radius,
              int32_t pass, int32_t firstRow, int32_t lastRow, VectorPath path) {
    if (p.width <= 0 || p.height <= 0 || radius < 0) return;
    firstRow = std::max(firstRow, 0);
    lastRow = std::min(lastRow, p.height - 1);
    if (firstRow > lastRow) return;
    path = UsablePath(path);
    const int32_t count = 2 * radius + 1;
    const size_t C = static_cast<size_t>(p.channels);
    const size_t rowFloats = static_cast<size_t>(p.width) * C;
    std::vector<const float*> rows(static_cast<size_t>(count));
    const Taps taps{rows.data(), count, weights, factor};

    if (path == VectorPath::Avx512 && radius >= kTransposeRadius) {
        if (pass == 0)
            PassRowsTransposedAvx512(p, taps, radius, firstRow, lastRow);
        else
            PassColumnsCopiedAvx512(p, taps, radius, firstRow, lastRow);
        return;
    }

    if (pass == 0) {
        // Inner points x = R .. W-1-R read tap t at x + t - R, so the taps are
        // the row itself shifted by t points; the points within R of either
        // end clamp each tap on its own.
        if (path == VectorPath::Avx512) {
            // 64-byte aligned copy of a row with R clamped points either side,
            // and room for the last permute's second load.
            const size_t padded = rowFloats + 2 * static_cast<size_t>(radius) * C;
            std::vector<float> storage(padded + 48);
            float* pad = storage.data();
            pad += ((64 - (reinterpret_cast<uintptr_t>(pad) & 63)) & 63) / sizeof(float);
            for (int32_t y = firstRow; y <= lastRow; ++y) {
                const float* src = p.source + static_cast<size_t>(y) * rowFloats;
                const size_t side = static_cast<size_t>(radius) * C;
                for (size_t e = 0; e < side; ++e) pad[e] = src[e % C];
                std::copy(src, src + rowFloats, pad + side);
                for (size_t e = 0; e < side; ++e) pad[side + rowFloats + e] = src[rowFloats - C + e % C];
                SumPaddedRowAvx512(taps, pad, C, rowFloats,
                                   p.destination + static_cast<size_t>(y) * rowFloats);
            }
            return;
        }
        const bool inner = p.width > 2 * radius;
        for (int32_t y = firstRow; y <= lastRow; ++y) {
            const float* src = p.source + static_cast<size_t>(y) * rowFloats;
            float* dst = p.destination + static_cast<size_t>(y) * rowFloats;
            if (inner) {
                for (int32_t t = 0; t < count; ++t) rows[static_cast<size_t>(t)] = src + t * C;
                SumTaps(taps, 0, static_cast<size_t>(p.width - 2 * radius) * C, dst + radius * C,
                        path);
            }
            for (int32_t x = 0; x < p.width; ++x) {
                if (inner && x >= radius && x < p.width - radius) continue;
                for (size_t c = 0; c < C; ++c)
                    dst[static_cast<size_t>(x) * C + c] = EdgeSum(taps, src, p.width, C, x, c);
            }
        }
        return;
    }

    // Loads that straddle cache lines cost twice: the strips start where the
    // source rows reach a 64-byte boundary (every row does at once when the
    // row length is a multiple of 16 floats), the few points before go first.
    const size_t stripFloats = StripFloats(count);
    const uintptr_t address = reinterpret_cast<uintptr_t>(p.source);
    const size_t lead = path == VectorPath::Plain || address % sizeof(float) != 0
                            ? 0
                            : std::min(((64 - (address & 63)) & 63) / sizeof(float), rowFloats);
    for (size_t strip = 0; strip < rowFloats;) {
        const size_t end = strip < lead ? lead : std::min(strip + stripFloats, rowFloats);
        for (int32_t y = firstRow; y <= lastRow; ++y) {
            for (int32_t t = 0; t < count; ++t) {
                const int32_t sy = std::clamp(y + t - radius, 0, p.height - 1);
                rows[static_cast<size_t>(t)] = p.source + static_cast<size_t>(sy) * rowFloats;
            }
            SumTaps(taps, strip, end, p.destination + static_cast<size_t>(y) * rowFloats, path);
        }
        strip = end;
    }
}

}  // namespace

void BoxBlurRows(const BlurPlane& plane, int32_t radius, int32_t pass, int32_t firstRow,
                 int32_t lastRow, VectorPath path) {
    const float factor = 1.0f / static_cast<float>(2 * radius + 1);
    BlurRows(plane, nullptr, factor, radius, pass, firstRow, lastRow, path);
}

void GaussianBlurRows(const BlurPlane& plane, const float* weights, int32_t radius, int32_t pass,
                      int32_t firstRow, int32_t lastRow, VectorPath path) {
    BlurRows(plane, weights, 1.0f, radius, pass, firstRow, lastRow, path);
}

namespace {

// What a row's tap k shares across the row: the x offset and the two source
// rows with the y fraction of the bilinear sample, formed as the plain
// per-sample code forms them.
struct MotionTap {
    float weight;
    float dx;  // cosine * k
    float ty, oneMinusTy;
    const float* row0;
    const float* row1;
};

void MotionTaps(const BlurPlane& p, const float* weights, int32_t radius, float cosine,
                float sine, int32_t y, MotionTap* taps) {
    const size_t rowFloats = static_cast<size_t>(p.width) * static_cast<size_t>(p.channels);
    for (int32_t k = -radius; k <= radius; ++k) {
        const float fk = static_cast<float>(k);
        const float fy = static_cast<float>(y) + sine * fk;
        const int32_t iy = static_cast<int32_t>(fy);
        const float ty = fy - static_cast<float>(iy);
        const int32_t y0 = std::clamp(iy, 0, p.height - 1);
        const int32_t y1 = std::clamp(iy + 1, 0, p.height - 1);
        taps[k + radius] = {weights[k + radius], cosine * fk, ty, 1.0f - ty,
                            p.source + static_cast<size_t>(y0) * rowFloats,
                            p.source + static_cast<size_t>(y1) * rowFloats};
    }
}

void MotionRowPlain(const BlurPlane& p, const MotionTap* taps, int32_t count, float* dst) {
    const size_t C = static_cast<size_t>(p.channels);
    float acc[3] = {};
    for (int32_t x = 0; x < p.width; ++x) {
        for (int32_t t = 0; t < count; ++t) {
            const MotionTap& tap = taps[t];
            const float fx = static_cast<float>(x) + tap.dx;
            const int32_t ix = static_cast<int32_t>(fx);
            const float tx = fx - static_cast<float>(ix);
            const size_t x0 = static_cast<size_t>(std::clamp(ix, 0, p.width - 1)) * C;
            const size_t x1 = static_cast<size_t>(std::clamp(ix + 1, 0, p.width - 1)) * C;
            for (size_t c = 0; c < C; ++c) {
                const float top = tap.row0[x0 + c] * (1.0f - tx) + tap.row0[x1 + c] * tx;
                const float bottom = tap.row1[x0 + c] * (1.0f - tx) + tap.row1[x1 + c] * tx;
                const float term = tap.weight * (top * tap.oneMinusTy + bottom * tap.ty);
                acc[c] = t == 0 ? term : acc[c] + term;
            }
        }
        for (size_t c = 0; c < C; ++c) dst[static_cast<size_t>(x) * C + c] = acc[c];
    }
}

// GCC 12's plain forms of these start from an undefined register and warn
// that it may be used uninitialised; the zero-masked forms with every lane
// set are the same instructions.
#define BK_AVX512 __attribute__((target("avx512f,avx512dq,avx2"), always_inline)) inline
BK_AVX512 __m512 ToFloat(__m512i a) { return _mm512_maskz_cvtepi32_ps(0xFFFF, a); }
BK_AVX512 __m512i Truncate(__m512 a) { return _mm512_maskz_cvttps_epi32(0xFFFF, a); }
BK_AVX512 __m512i Clamp(__m512i a, __m512i lo, __m512i hi) {
    return _mm512_maskz_max_epi32(0xFFFF, _mm512_maskz_min_epi32(0xFFFF, a, hi), lo);
}
BK_AVX512 __m512 Gather(__m512i index, const float* base) {
    return _mm512_mask_i32gather_ps(_mm512_setzero_ps(), 0xFFFF, index, base, 4);
}

// Sixteen neighbouring outputs at a time, each lane its own x through the
// same taps in the same order. Where a tap's sixteen integer parts are
// consecutive and no neighbour needs clamping (one channel), the neighbours
// are two unaligned loads per source row; elsewhere they are gathered at the
// clamped indices.
__attribute__((target("avx512f,avx512dq,avx2"))) void MotionRowAvx512(const BlurPlane& p,
                                                                      const MotionTap* taps,
                                                                      int32_t count, float* dst) {
    const int32_t C = p.channels;
    const __m512i lanes = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const __m512i last = _mm512_set1_epi32(p.width - 1);
    const __m512i zero = _mm512_setzero_si512();
    const __m512i one = _mm512_set1_epi32(1);
    const __m512 onef = _mm512_set1_ps(1.0f);
    for (int32_t x = 0; x < p.width; x += 16) {
        const bool full = x + 16 <= p.width;
        const __m512i xi = _mm512_add_epi32(_mm512_set1_epi32(x), lanes);
        const __m512 xf = ToFloat(xi);
        __m512 acc[3] = {_mm512_setzero_ps(), _mm512_setzero_ps(), _mm512_setzero_ps()};
        for (int32_t t = 0; t < count; ++t) {
            const MotionTap& tap = taps[t];
            const __m512 fx = _mm512_add_ps(xf, _mm512_set1_ps(tap.dx));
            const __m512i ix = Truncate(fx);
            const __m512 tx = _mm512_sub_ps(fx, ToFloat(ix));
            const __m512 omtx = _mm512_sub_ps(onef, tx);
            const __m512 ty = _mm512_set1_ps(tap.ty);
            const __m512 omty = _mm512_set1_ps(tap.oneMinusTy);
            const __m512 w = _mm512_set1_ps(tap.weight);
            if (C == 1 && full) {
                const int32_t q = _mm512_cvtsi512_si32(ix) - x;
                const __mmask16 consecutive =
                    _mm512_cmpeq_epi32_mask(ix, _mm512_add_epi32(xi, _mm512_set1_epi32(q)));
                if (consecutive == 0xFFFF && x + q >= 0 && x + q + 16 <= p.width - 1) {
                    const float* a = tap.row0 + (x + q);
                    const float* b = tap.row1 + (x + q);
                    const __m512 top = _mm512_add_ps(_mm512_mul_ps(_mm512_loadu_ps(a), omtx),
                                                     _mm512_mul_ps(_mm512_loadu_ps(a + 1), tx));
                    const __m512 bottom = _mm512_add_ps(_mm512_mul_ps(_mm512_loadu_ps(b), omtx),
                                                        _mm512_mul_ps(_mm512_loadu_ps(b + 1), tx));
                    const __m512 term = _mm512_mul_ps(
                        w, _mm512_add_ps(_mm512_mul_ps(top, omty), _mm512_mul_ps(bottom, ty)));
                    acc[0] = t == 0 ? term : _mm512_add_ps(acc[0], term);
                    continue;
                }
            }
            const __m512i x0 = Clamp(ix, zero, last);
            const __m512i x1 = Clamp(_mm512_add_epi32(ix, one), zero, last);
            const __m512i i0 = _mm512_mullo_epi32(x0, _mm512_set1_epi32(C));
            const __m512i i1 = _mm512_mullo_epi32(x1, _mm512_set1_epi32(C));
            for (int32_t c = 0; c < C; ++c) {
                const __m512i j0 = _mm512_add_epi32(i0, _mm512_set1_epi32(c));
                const __m512i j1 = _mm512_add_epi32(i1, _mm512_set1_epi32(c));
                const __m512 top =
                    _mm512_add_ps(_mm512_mul_ps(Gather(j0, tap.row0), omtx),
                                  _mm512_mul_ps(Gather(j1, tap.row0), tx));
                const __m512 bottom =
                    _mm512_add_ps(_mm512_mul_ps(Gather(j0, tap.row1), omtx),
                                  _mm512_mul_ps(Gather(j1, tap.row1), tx));
                const __m512 term = _mm512_mul_ps(
                    w, _mm512_add_ps(_mm512_mul_ps(top, omty), _mm512_mul_ps(bottom, ty)));
                acc[c] = t == 0 ? term : _mm512_add_ps(acc[c], term);
            }
        }
        const int32_t n = std::min(16, p.width - x);
        if (C == 1) {
            _mm512_mask_storeu_ps(dst + x, static_cast<__mmask16>((1u << n) - 1), acc[0]);
        } else {
            alignas(64) float lanesOut[3][16];
            for (int32_t c = 0; c < C; ++c) _mm512_store_ps(lanesOut[c], acc[c]);
            for (int32_t i = 0; i < n; ++i)
                for (int32_t c = 0; c < C; ++c)
                    dst[static_cast<size_t>(x + i) * C + c] = lanesOut[c][i];
        }
    }
}

}  // namespace

void MotionBlurRows(const BlurPlane& p, const float* weights, int32_t radius, float cosine,
                    float sine, int32_t firstRow, int32_t lastRow, VectorPath path) {
    if (p.width <= 0 || p.height <= 0 || radius < 0) return;
    if (p.channels < 1 || p.channels > 3) return;
    firstRow = std::max(firstRow, 0);
    lastRow = std::min(lastRow, p.height - 1);
    path = UsablePath(path);
    const int32_t count = 2 * radius + 1;
    const size_t rowFloats = static_cast<size_t>(p.width) * static_cast<size_t>(p.channels);
    std::vector<MotionTap> taps(static_cast<size_t>(count));
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        MotionTaps(p, weights, radius, cosine, sine, y, taps.data());
        float* dst = p.destination + static_cast<size_t>(y) * rowFloats;
        if (path == VectorPath::Avx512)
            MotionRowAvx512(p, taps.data(), count, dst);
        else
            MotionRowPlain(p, taps.data(), count, dst);
    }
}

}  // namespace basekit
