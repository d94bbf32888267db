// What the blur's plain code shares with its vector paths: the taps of a row
// of sums, the motion blur's per-row taps, and the vector entry points.
#pragma once

#include <cstddef>
#include <cstdint>

#include "devices/filters/blur/BlurKernels.h"
#include "framework/Terrain.h"
#include "framework/VectorDispatch.h"

namespace basekit::blur {

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

// out[j] for j = first .. end-1.
void SumTapsPlain(const Taps& taps, size_t first, size_t end, float* out);

// What a row's tap k of the motion blur shares across the row: the x offset,
// and the y axis of the bilinear sample with its two source rows.
struct MotionTap {
    float weight;
    float dx;  // cosine * k
    Orogen::BilinearTap y;
    const float* row0;  // row y.i0
    const float* row1;  // row y.i1
};

// Below this radius the shuffles of the transposes and the copies cost more
// than the sums they speed up.
constexpr int32_t kTransposeRadius = 8;

// The vector forms of SumTapsPlain; each hands the tail to the next narrower path.
BASEKIT_TARGET_AVX2 void SumTapsAvx2(const Taps& taps, size_t first, size_t end, float* out);
BASEKIT_TARGET_AVX512 void SumTapsAvx512(const Taps& taps, size_t first, size_t end, float* out);

// Pass 0 of one row from a 64-byte aligned copy `pad` of it with R clamped
// points either side and 48 floats to spare; n floats of output.
BASEKIT_TARGET_AVX512 void SumPaddedRowAvx512(const Taps& taps, const float* pad, size_t C,
                                              size_t n, float* out);

// Both passes for R >= kTransposeRadius: rows firstRow..lastRow of the plane.
BASEKIT_TARGET_AVX512 void PassRowsTransposedAvx512(const BlurPlane& p, const Taps& taps,
                                                    int32_t radius, int32_t firstRow,
                                                    int32_t lastRow);
BASEKIT_TARGET_AVX512 void PassColumnsCopiedAvx512(const BlurPlane& p, const Taps& taps,
                                                   int32_t radius, int32_t firstRow,
                                                   int32_t lastRow);

// One output row of the motion blur from its count taps.
BASEKIT_TARGET_AVX512 void MotionRowAvx512(const BlurPlane& p, const MotionTap* taps, int32_t count,
                                           float* dst);

}  // namespace basekit::blur
