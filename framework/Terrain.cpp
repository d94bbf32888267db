#include "framework/Terrain.h"

#include <algorithm>
#include <cmath>

namespace Orogen {

double SamplesPerUnit(const Grid& grid) {
    double extent = grid.x1 - grid.x0;
    return extent > 0.0 ? grid.width / extent : 0.0;
}

int32_t ScaleIndependent(int32_t samples, const Grid& grid) {
    return static_cast<int32_t>(samples * SamplesPerUnit(grid) * 0.00390625);
}

void HeightSlope(const float* heights, const Grid& grid, int32_t x, int32_t y, float& gx,
                 float& gy) {
    const int32_t w = grid.width;
    const int32_t h = grid.height;
    const float density = static_cast<float>(SamplesPerUnit(grid));
    const float vertical = static_cast<float>(grid.verticalScale);
    auto at = [&](int32_t cx, int32_t cy) { return heights[static_cast<int64_t>(cy) * w + cx]; };
    if (w < 2)
        gx = 0.0f;
    else if (x == 0)
        gx = (at(1, y) - at(0, y)) * density * vertical;
    else if (x == w - 1)
        gx = (at(w - 1, y) - at(w - 2, y)) * density * vertical;
    else
        gx = (at(x + 1, y) - at(x - 1, y)) * density * vertical * 0.5f;
    if (h < 2)
        gy = 0.0f;
    else if (y == 0)
        gy = (at(x, 1) - at(x, 0)) * density * vertical;
    else if (y == h - 1)
        gy = (at(x, h - 1) - at(x, h - 2)) * density * vertical;
    else
        gy = (at(x, y + 1) - at(x, y - 1)) * density * vertical * 0.5f;
}

void SlopeNormal(float gx, float gy, float normal[3]) {
    float length = std::sqrt(gx * gx + gy * gy + 1.0f);
    normal[0] = gx / length;
    normal[1] = gy / length;
    normal[2] = 1.0f / length;
}

void BilinearSample(const float* samples, int32_t width, int32_t height, int channels, float fx,
                    float fy, float* out) {
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
