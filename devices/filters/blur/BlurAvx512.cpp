// The blur's AVX-512 path: the sums of both passes sixteen floats at a time,
// the padded-row and transposed forms of pass 0, the column-strip form of
// pass 1, and the motion blur.

#include <immintrin.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "devices/filters/blur/BlurPaths.h"
#include "framework/Vectors.h"

BASEKIT_BEGIN_AVX512
#include "devices/filters/blur/SumTaps.h"
BASEKIT_END_TARGET

namespace basekit::blur {

BASEKIT_TARGET_AVX512 void SumTapsAvx512(const Taps& taps, size_t first, size_t end, float* out) {
    SumTapsAvx2(taps, SumTapsVectors<Floats16>(taps, first, end, out), end, out);
}

// Pass 0 on AVX-512 from a copy of the row padded with its clamped border
// points and aligned to 64 bytes: tap t of outputs j..j+15 is pad[j + C t ..],
// put together from two aligned loads by one permute rather than read by a
// load that straddles cache lines. Every output is the same sum as above.
BASEKIT_TARGET_AVX512 void SumPaddedRowAvx512(const Taps& taps, const float* pad, size_t C,
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
                for (int a = 0; a < kVectors; ++a)
                    acc[a] = t == 0 ? v[a] : _mm512_add_ps(acc[a], v[a]);
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
    for (int32_t t = 0; t < taps.count; ++t)
        rows[static_cast<size_t>(t)] = pad + C * static_cast<size_t>(t);
    const Taps rest{rows.data(), taps.count, taps.weights, taps.factor};
    SumTapsAvx2(rest, j, n, out);
}

// The large-radius AVX-512 form of both passes: the taps of a block of
// outputs are laid out as consecutive aligned vectors V[0], V[1], ... with
// each lane its own output line, so output i of every lane is the sum over t
// of V[i + stride * t], read from the first-level cache without shuffles or
// loads across cache lines. Pass 0 gets there by transposing 16 rows at a
// time, pass 1 by copying a strip of columns out of the source rows.

namespace {

// 16 x 16 transpose of r. The zero-masked forms with every lane set are the
// plain instructions; GCC 12 warns about the undefined register its plain
// forms start from.
BASEKIT_TARGET_AVX512 __attribute__((always_inline)) inline void Transpose16(__m512 r[16]) {
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
BASEKIT_TARGET_AVX512 __attribute__((always_inline)) inline void SumBlock16(const Taps& taps,
                                                                            const float* V,
                                                                            size_t stride,
                                                                            __m512 acc[16]) {
    const size_t step = 16 * stride;
    SumVectors<Floats16, 16>(
        taps, [=](int32_t t) { return V + step * static_cast<size_t>(t); }, acc);
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

// GCC 12's plain forms of these start from an undefined register and warn
// that it may be used uninitialised; the zero-masked forms with every lane
// set are the same instructions.
BASEKIT_TARGET_AVX512 inline __m512 ToFloat(__m512i a) {
    return _mm512_maskz_cvtepi32_ps(0xFFFF, a);
}
BASEKIT_TARGET_AVX512 inline __m512i Truncate(__m512 a) {
    return _mm512_maskz_cvttps_epi32(0xFFFF, a);
}
BASEKIT_TARGET_AVX512 inline __m512i Clamp(__m512i a, __m512i lo, __m512i hi) {
    return _mm512_maskz_max_epi32(0xFFFF, _mm512_maskz_min_epi32(0xFFFF, a, hi), lo);
}
BASEKIT_TARGET_AVX512 inline __m512 Gather(__m512i index, const float* base) {
    return _mm512_mask_i32gather_ps(_mm512_setzero_ps(), 0xFFFF, index, base, 4);
}

}  // namespace

// Pass 0 rows firstRow..lastRow, 16 rows at a time (a last group short of
// 16 rows starts earlier and repeats some rows, or reads clamped rows it
// does not write).
BASEKIT_TARGET_AVX512 void PassRowsTransposedAvx512(const BlurPlane& p, const Taps& taps,
                                                    int32_t radius, int32_t firstRow,
                                                    int32_t lastRow) {
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
            _mm512_store_ps(T + 16 * (side + n + e),
                            _mm512_load_ps(T + 16 * (side + n - C + e % C)));
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
BASEKIT_TARGET_AVX512 void PassColumnsCopiedAvx512(const BlurPlane& p, const Taps& taps,
                                                   int32_t radius, int32_t firstRow,
                                                   int32_t lastRow) {
    constexpr size_t kStrip = 16;
    constexpr int32_t kChunkRows = 256;
    const size_t n = static_cast<size_t>(p.width) * static_cast<size_t>(p.channels);
    const int32_t chunk = std::min(kChunkRows, lastRow - firstRow + 1);
    const size_t span = static_cast<size_t>(chunk) + 2 * static_cast<size_t>(radius);
    const size_t column =
        ((static_cast<size_t>(chunk) + 15) & ~size_t{15}) + 2 * static_cast<size_t>(radius);
    VectorScratch scratch(kStrip * column);
    __m512 acc[16];
    for (size_t e0 = 0; e0 < n; e0 += 16 * kStrip) {
        const size_t vectors = std::min(kStrip, (n - e0 + 15) / 16);
        const size_t lastFloats = n - e0 - 16 * (vectors - 1);
        const __mmask16 lastMask =
            static_cast<__mmask16>((1u << std::min<size_t>(16, lastFloats)) - 1);
        for (int32_t y0 = firstRow; y0 <= lastRow; y0 += chunk) {
            const int32_t rows = std::min(chunk, lastRow - y0 + 1);
            const size_t copied = static_cast<size_t>(rows) + (span - static_cast<size_t>(chunk));
            for (size_t m = 0; m < copied; ++m) {
                const int32_t sy =
                    std::clamp(y0 - radius + static_cast<int32_t>(m), 0, p.height - 1);
                const float* row = p.source + static_cast<size_t>(sy) * n + e0;
                for (size_t q = 0; q + 1 < vectors; ++q)
                    _mm512_store_ps(scratch.data + 16 * (q * column + m),
                                    _mm512_loadu_ps(row + 16 * q));
                _mm512_store_ps(scratch.data + 16 * ((vectors - 1) * column + m),
                                _mm512_maskz_loadu_ps(lastMask, row + 16 * (vectors - 1)));
            }
            for (size_t q = 0; q < vectors; ++q) {
                const __mmask16 mask = q + 1 < vectors ? __mmask16{0xFFFF} : lastMask;
                for (int32_t i = 0; i < rows; i += 16) {
                    SumBlock16(taps, scratch.data + 16 * (q * column + static_cast<size_t>(i)), 1,
                               acc);
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

// Sixteen neighbouring outputs at a time, each lane its own x through the
// same taps in the same order. Where a tap's sixteen integer parts are
// consecutive and no neighbour needs clamping (one channel), the neighbours
// are two unaligned loads per source row; elsewhere they are gathered at the
// clamped indices.
BASEKIT_TARGET_AVX512 void MotionRowAvx512(const BlurPlane& p, const MotionTap* taps, int32_t count,
                                           float* dst) {
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
            const __m512 ty = _mm512_set1_ps(tap.y.t);
            const __m512 omty = _mm512_set1_ps(tap.y.oneMinusT);
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
                const __m512 top = _mm512_add_ps(_mm512_mul_ps(Gather(j0, tap.row0), omtx),
                                                 _mm512_mul_ps(Gather(j1, tap.row0), tx));
                const __m512 bottom = _mm512_add_ps(_mm512_mul_ps(Gather(j0, tap.row1), omtx),
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

}  // namespace basekit::blur
