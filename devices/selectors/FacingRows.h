// Select Angle's row loop, written once over the path's tag type: the same
// IEEE operations for every sample, without branches, so that the compiler
// vectorises it for the path it is compiled for (FacingAvx2.cpp and
// FacingAvx512.cpp include it between a target's BEGIN and END lines).
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "devices/selectors/SelectorKernels.h"
#include "framework/Neighbourhood.h"

namespace basekit::facing {

// Orogen::Atan2's own steps with both arms of each choice worked out and one
// kept: the folded ratio, the series about 0 or about 1, the unfolding by
// quadrant. NaN in either argument gives x + y, as Atan2 does.
// c ? a : b by masks, so that the compiler keeps no branch for it.
[[gnu::always_inline]] inline double Pick(bool c, double a, double b) {
    const uint64_t m = 0 - static_cast<uint64_t>(c);
    return std::bit_cast<double>((std::bit_cast<uint64_t>(a) & m) |
                                 (std::bit_cast<uint64_t>(b) & ~m));
}

template <class Path>
[[gnu::always_inline]] inline float Atan2Lane(float y, float x) {
    constexpr double kPi = 3.14159265358979311600e+00;
    // -1/3, 1/5, -1/7, ...: atan's series past its first term.
    constexpr auto kTerms = [] {
        std::array<double, 19> c{};
        for (int i = 0; i < 19; ++i) c[i] = (i % 2 == 0 ? -1.0 : 1.0) / (2 * i + 3);
        return c;
    }();
    const double ay = std::fabs(static_cast<double>(y)), ax = std::fabs(static_cast<double>(x));
    const bool below = ay < ax;
    // Every division is made whichever arm is kept: a vector loop may not
    // make one the plain code skips otherwise.
    const double t = Pick(below, ay, ax) / Pick(below, ax, ay);
    const bool near0 = t <= 0.41421356237309503;
    const double folded = (t - 1.0) / (t + 1.0);
    const double u = Pick(near0, t, folded);
    const double z = u * u;
    double p = kTerms[18];
#pragma GCC unroll 18
    for (int i = 17; i >= 0; --i) p = p * z + kTerms[i];
    const double series = u + u * z * p;
    const double nearOne = kPi / 4 + series;
    const double unit = Pick(near0, series, nearOne);
    const double steep = kPi / 2 - unit;
    double angle = Pick(below, unit, steep);
    angle = Pick(ay == ax, Pick(ay == 0.0, 0.0, kPi / 4), angle);
    const double behind = kPi - angle;
    angle = Pick((std::bit_cast<uint32_t>(x) >> 31) != 0, behind, angle);
    const float result =
        static_cast<float>(Pick((std::bit_cast<uint32_t>(y) >> 31) != 0, -angle, angle));
    const double sum = static_cast<double>(x + y);
    return static_cast<float>(Pick(int(x != x) | int(y != y), sum, result));
}

template <class Path>
void FacingRowsOf(const float* heights, const Orogen::Grid& grid, const FacingDirection& direction,
                  int32_t first, int32_t last, float* facing, float* angle) {
    const int32_t width = grid.width, height = grid.height;
    if (width <= 0 || height <= 0) return;
    const Orogen::SlopeScale scale(grid);
    std::vector<float> gxRow(static_cast<size_t>(width)), gyRow(static_cast<size_t>(width));
    const float d0 = direction.d[0], d1 = direction.d[1], d2 = direction.d[2];
    for (int32_t y = first; y <= last; ++y) {
        scale.SlopeRow(heights, width, height, y, gxRow.data(), gyRow.data());
        const float* gx = gxRow.data();
        const float* gy = gyRow.data();
        float* f = facing + static_cast<int64_t>(y) * width;
        float* a = angle + static_cast<int64_t>(y) * width;
        for (int32_t x = 0; x < width; ++x) {
            const float len = std::sqrt(gx[x] * gx[x] + 1.0f + gy[x] * gy[x]);
            const float n0 = gx[x] / len, n1 = 1.0f / len, n2 = gy[x] / len;
            f[x] = std::max(n1 * d1 + n0 * d0 + n2 * d2, 0.0f);
        }
        for (int32_t x = 0; x < width; ++x)
            a[x] = (Atan2Lane<Path>(gy[x], gx[x]) + 3.1415927f) / 6.2831855f;
    }
}

}  // namespace basekit::facing
