// What several devices compute the same way: world positions of samples,
// sample density, scale independence, slopes and bilinear samples.
#pragma once

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <vector>

#include "framework/HostServices.h"
#include "framework/Port.h"

namespace Orogen {

// World position of column i / row j of a build grid.
inline double WorldX(const BuildContext& context, int32_t i) {
    double t = i * context.sx;
    if (context.coordinateMode == 2) return t;
    return context.grid.x0 + t * (context.grid.x1 - context.grid.x0);
}
inline double WorldY(const BuildContext& context, int32_t j) {
    double t = j * context.sy;
    if (context.coordinateMode == 2) return t;
    return context.grid.y0 + t * (context.grid.y1 - context.grid.y0);
}

// World positions of columns 0..width-1 and rows 0..height-1 (empty for a
// size below 1).
std::vector<double> ColumnPositions(const BuildContext& context, int32_t width);
std::vector<double> RowPositions(const BuildContext& context, int32_t height);

// Samples per world unit along x; 0 when the extent is not positive.
double SamplesPerUnit(const Grid& grid);

// A radius or distance given at 256 samples per world unit, scaled to the
// grid's density and truncated.
int32_t ScaleIndependent(int32_t samples, const Grid& grid);

// Slope of a height field at (x, y) in world units per world unit: central
// differences inside, one-sided at the edges. One sample's face of
// ForEachWindow and SlopeScale (framework/Neighbourhood.h), which whole
// fields should use.
void HeightSlope(const float* heights, const Grid& grid, int32_t x, int32_t y, float& gx,
                 float& gy);

// Beyond this a slope's square may overflow.
constexpr float kSteepSlope = 0x1p60f;

// Whether either part is beyond kSteepSlope (or NaN); no branch, so that row
// loops over it vectorise.
inline bool SteepSlope(float gx, float gy) {
    return static_cast<int>(!(std::fabs(gx) <= kSteepSlope)) |
           static_cast<int>(!(std::fabs(gy) <= kSteepSlope));
}

// (gx, gy, 1) / |(gx, gy, 1)| as written: exact for slopes that are not
// SteepSlope, and branch-free for row loops.
inline void ShallowSlopeNormal(float gx, float gy, float normal[3]) {
    const float length = std::sqrt(gx * gx + gy * gy + 1.0f);
    normal[0] = gx / length;
    normal[1] = gy / length;
    normal[2] = 1.0f / length;
}

// Unit normal (gx, gy, 1) / |(gx, gy, 1)|. Steeper slopes, infinite ones
// included, are scaled by the larger part first, so that no slope gives NaN.
inline void SlopeNormal(float gx, float gy, float normal[3]) {
    if (!SteepSlope(gx, gy)) {
        ShallowSlopeNormal(gx, gy, normal);
        return;
    }
    gx = std::clamp(gx, -FLT_MAX, FLT_MAX);
    gy = std::clamp(gy, -FLT_MAX, FLT_MAX);
    const float scale = std::max(std::fabs(gx), std::fabs(gy));
    const float x = gx / scale, y = gy / scale, z = 1.0f / scale;
    const float length = std::sqrt(x * x + y * y + z * z);
    normal[0] = x / length;
    normal[1] = y / length;
    normal[2] = z / length;
}

// One axis of a bilinear sample at f over 0 .. size-1: the integer part by
// truncation toward zero, its two neighbours clamped into the range, and
// their weights. Kernels that share an axis across many samples keep this.
struct BilinearTap {
    int32_t i0, i1;   // neighbours, clamped
    float t;          // weight of i1
    float oneMinusT;  // weight of i0
};

inline BilinearTap BilinearAxis(float f, int32_t size) {
    const int32_t i = static_cast<int32_t>(f);
    const float t = f - static_cast<float>(i);
    return {std::clamp(i, 0, size - 1), std::clamp(i + 1, 0, size - 1), t, 1.0f - t};
}

// a and b (the values at i0 and i1) weighted along the axis.
inline float BilinearMix(float a, float b, const BilinearTap& axis) {
    return a * axis.oneMinusT + b * axis.t;
}

// Bilinear sample at (fx, fy): integer parts by truncation toward zero, the
// four neighbours clamped into the field. `channels` floats per point;
// writes `channels` values. Inline, so that per-sample loops keep it in
// registers.
inline void BilinearSample(const float* samples, int32_t width, int32_t height, int channels,
                           float fx, float fy, float* out) {
    const BilinearTap x = BilinearAxis(fx, width);
    const BilinearTap y = BilinearAxis(fy, height);
    auto at = [&](int32_t px, int32_t py, int c) {
        return samples[(static_cast<int64_t>(py) * width + px) * channels + c];
    };
    for (int c = 0; c < channels; ++c) {
        const float top = BilinearMix(at(x.i0, y.i0, c), at(x.i1, y.i0, c), x);
        const float bottom = BilinearMix(at(x.i0, y.i1, c), at(x.i1, y.i1, c), x);
        out[c] = BilinearMix(top, bottom, y);
    }
}

}  // namespace Orogen
