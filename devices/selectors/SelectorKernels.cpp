#include "devices/selectors/SelectorKernels.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "devices/selectors/FacingPaths.h"
#include "devices/selectors/FacingRows.h"
#include "framework/Neighbourhood.h"
#include "framework/PortableMath.h"

namespace basekit {

// Degrees to radians with the selectors' own shortened constant.
constexpr float kAnglePi = 3.14159f;

FacingDirection MakeFacingDirection(int32_t heading, int32_t elevation) {
    const float h = static_cast<float>(heading) * kAnglePi / 180.0f;
    const float e = static_cast<float>(elevation) * kAnglePi / 180.0f;
    const float ce = Orogen::Cos(e);
    FacingDirection dir{{Orogen::Cos(h) * ce, Orogen::Sin(e), Orogen::Sin(h) * ce}};
    const float length = std::sqrt(dir.d[0] * dir.d[0] + dir.d[1] * dir.d[1] + dir.d[2] * dir.d[2]);
    for (float& c : dir.d) c /= length;
    return dir;
}

namespace {
struct Plain {};
}  // namespace

void FacingRows(const float* heights, const Orogen::Grid& grid, const FacingDirection& direction,
                int32_t first, int32_t last, float* facing, float* angle, VectorPath path) {
    switch (UsablePath(path)) {
        case VectorPath::Avx512:
            return facing::FacingRowsAvx512(heights, grid, direction, first, last, facing, angle);
        case VectorPath::Avx2:
            return facing::FacingRowsAvx2(heights, grid, direction, first, last, facing, angle);
        case VectorPath::Plain:
            break;
    }
    facing::FacingRowsOf<Plain>(heights, grid, direction, first, last, facing, angle);
}

void ConvexRows(const float* heights, int32_t width, int32_t height, float gain, int32_t first,
                int32_t last, float* out) {
    auto at = [&](const Orogen::Window& w) {
        const float lap = (w.e - 2.0f * w.c + w.w) + (w.s - 2.0f * w.c + w.n);
        return 0.5f - gain * lap;
    };
    for (int32_t y = first; y <= last; ++y) {
        const int64_t row = static_cast<int64_t>(y) * width;
        const float* up = heights + static_cast<int64_t>(std::max(y - 1, 0)) * width;
        const float* mid = heights + row;
        const float* down = heights + static_cast<int64_t>(std::min(y + 1, height - 1)) * width;
        // The window's clamping matters only in the first and last column.
        for (int32_t x : {0, width - 1})
            if (x >= 0)
                out[row + x] =
                    at(Orogen::WindowAt(heights, width, height, x, y, Orogen::EdgeRule::Clamped));
        for (int32_t x = 1; x < width - 1; ++x) {
            const float lap =
                (mid[x + 1] - 2.0f * mid[x] + mid[x - 1]) + (down[x] - 2.0f * mid[x] + up[x]);
            out[row + x] = 0.5f - gain * lap;
        }
    }
}

}  // namespace basekit
