#include "framework/Terrain.h"

#include <algorithm>
#include <cmath>

#include "framework/Neighbourhood.h"

namespace Orogen {

std::vector<double> ColumnPositions(const BuildContext& context, int32_t width) {
    std::vector<double> positions(static_cast<size_t>(std::max(width, 0)));
    for (int32_t i = 0; i < width; ++i) positions[static_cast<size_t>(i)] = WorldX(context, i);
    return positions;
}

std::vector<double> RowPositions(const BuildContext& context, int32_t height) {
    std::vector<double> positions(static_cast<size_t>(std::max(height, 0)));
    for (int32_t j = 0; j < height; ++j) positions[static_cast<size_t>(j)] = WorldY(context, j);
    return positions;
}

double SamplesPerUnit(const Grid& grid) {
    double extent = grid.x1 - grid.x0;
    return extent > 0.0 ? grid.width / extent : 0.0;
}

int32_t ScaleIndependent(int32_t samples, const Grid& grid) {
    const double scaled = samples * SamplesPerUnit(grid) * 0.00390625;
    // Past int32 the cast is undefined: a radius that large covers any field.
    if (std::isnan(scaled)) return 0;
    return static_cast<int32_t>(std::clamp(scaled, -2147483648.0, 2147483647.0));
}

void HeightSlope(const float* heights, const Grid& grid, int32_t x, int32_t y, float& gx,
                 float& gy) {
    SlopeScale(grid).Slope(WindowAt(heights, grid.width, grid.height, x, y, EdgeRule::OneSided), gx,
                           gy);
}

}  // namespace Orogen
