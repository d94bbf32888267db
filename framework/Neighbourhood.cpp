#include "framework/Neighbourhood.h"

#include <algorithm>
#include <limits>

#include "framework/Terrain.h"

namespace Orogen {

namespace {

// A vertical scale whose product with the density overflows a float would
// make a flat window's slope 0 * inf: it stops where a height difference of
// 1 still gives a finite slope. Ordinary scales are kept bit for bit.
float SlopeVertical(const Grid& grid, float density) {
    const float most = std::numeric_limits<float>::max() / 4.0f / std::max(density, 1.0f);
    return std::min(static_cast<float>(std::min(grid.verticalScale, double(most))), most);
}

}  // namespace

SlopeScale::SlopeScale(const Grid& grid)
    : density(static_cast<float>(SamplesPerUnit(grid))), vertical(SlopeVertical(grid, density)) {}

void SlopeScale::SlopeRow(const float* samples, int32_t width, int32_t height, int32_t y, float* gx,
                          float* gy) const {
    if (width <= 0 || height <= 0) return;
    const float* up = samples + static_cast<int64_t>(std::max(y - 1, 0)) * width;
    const float* mid = samples + static_cast<int64_t>(y) * width;
    const float* down = samples + static_cast<int64_t>(std::min(y + 1, height - 1)) * width;
    const float halfY = height < 2 ? 0.0f : y > 0 && y < height - 1 ? 0.5f : 1.0f;
    for (int32_t x = 0; x < width; ++x)
        gy[x] = halfY == 0.0f ? 0.0f : (down[x] - up[x]) * density * vertical * halfY;
    if (width < 2) {
        gx[0] = 0.0f;
        return;
    }
    gx[0] = (mid[1] - mid[0]) * density * vertical * 1.0f;
    for (int32_t x = 1; x < width - 1; ++x)
        gx[x] = (mid[x + 1] - mid[x - 1]) * density * vertical * 0.5f;
    gx[width - 1] = (mid[width - 1] - mid[width - 2]) * density * vertical * 1.0f;
}

}  // namespace Orogen
