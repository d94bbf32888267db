// 3x3 work on height fields (slopes, normals, Laplacians, softening): one
// driver that owns the edge rule, rows in parallel.
#pragma once

#include <algorithm>
#include <cstdint>

#include "framework/Packet.h"
#include "framework/Rows.h"

namespace Orogen {

// How a neighbourhood treats the neighbours beyond the field's edge. Both
// repeat the edge sample in place of a missing neighbour; they differ in what
// a difference across the window is divided by.
enum class EdgeRule {
    // Slopes: central differences inside, one-sided at the edges (the edge
    // sample and its one inner neighbour, not halved).
    OneSided,
    // Laplacian, softening: the missing neighbour is the sample itself and
    // every difference across the window is halved.
    Clamped,
};

// Sample (x, y) and its eight neighbours, indices clamped into the field.
// North is row y - 1, west column x - 1.
struct Window {
    int32_t x = 0, y = 0;
    float c = 0, n = 0, s = 0, w = 0, e = 0, nw = 0, ne = 0, sw = 0, se = 0;
    // The factor of a difference across the window (e - w, s - n): 0.5 for a
    // central difference, 1 one-sided, 0 across a side of one sample.
    float halfX = 0, halfY = 0;
};

// The window of one sample of a width x height field.
inline Window WindowAt(const float* samples, int32_t width, int32_t height, int32_t x, int32_t y,
                       EdgeRule rule) {
    const int32_t x0 = std::max(x - 1, 0), x1 = std::min(x + 1, width - 1);
    const float* up = samples + static_cast<int64_t>(std::max(y - 1, 0)) * width;
    const float* mid = samples + static_cast<int64_t>(y) * width;
    const float* down = samples + static_cast<int64_t>(std::min(y + 1, height - 1)) * width;
    Window win;
    win.x = x;
    win.y = y;
    win.c = mid[x];
    win.n = up[x];
    win.s = down[x];
    win.w = mid[x0];
    win.e = mid[x1];
    win.nw = up[x0];
    win.ne = up[x1];
    win.sw = down[x0];
    win.se = down[x1];
    auto half = [rule](int32_t i, int32_t size) {
        if (size < 2) return 0.0f;
        if (rule == EdgeRule::Clamped || (i > 0 && i < size - 1)) return 0.5f;
        return 1.0f;
    };
    win.halfX = half(x, width);
    win.halfY = half(y, height);
    return win;
}

// Slopes in world units per world unit: the samples per world unit and the
// vertical scale of a field, found once for all its samples.
class SlopeScale {
  public:
    explicit SlopeScale(const Grid& grid);
    // d * samples per unit * vertical scale * half, multiplied in that order.
    void Slope(const Window& win, float& gx, float& gy) const {
        gx = win.halfX == 0.0f ? 0.0f : (win.e - win.w) * density * vertical * win.halfX;
        gy = win.halfY == 0.0f ? 0.0f : (win.s - win.n) * density * vertical * win.halfY;
    }

    // Slope of every sample of row y, the same bits as Slope of each
    // sample's OneSided window, without building the windows; gx and gy take
    // width floats.
    void SlopeRow(const float* samples, int32_t width, int32_t height, int32_t y, float* gx,
                  float* gy) const;

  private:
    float density;
    float vertical;
};

// f(window) for every sample of a height field, rows in parallel through
// RunRows; f may write outputs of the sample's own index only.
template <class WindowFunction>
bool ForEachWindow(const BuildContext& context, Device* device, const QXPacket& field,
                   EdgeRule rule, WindowFunction f, RowProgress progress = RowProgress::Pieces) {
    const int32_t width = field.grid.width, height = field.grid.height;
    const float* samples = field.samples;
    if (!samples || width <= 0 || height <= 0) return true;
    return ForEachRow(
        context, device, 0, height - 1,
        [&](int32_t y) {
            for (int32_t x = 0; x < width; ++x) f(WindowAt(samples, width, height, x, y, rule));
        },
        kRowPieces, progress);
}

// f(window) for the interior samples (1..width-2, 1..height-2) in row-major
// order on the calling thread, storing its answer in place: each window sees
// the values the sweep has already replaced.
template <class WindowFunction>
void SweepInterior(QXPacket& field, WindowFunction f) {
    const int32_t width = field.grid.width, height = field.grid.height;
    float* samples = field.samples;
    if (!samples || width < 3 || height < 3) return;
    for (int32_t y = 1; y < height - 1; ++y)
        for (int32_t x = 1; x < width - 1; ++x)
            samples[static_cast<int64_t>(y) * width + x] =
                f(WindowAt(samples, width, height, x, y, EdgeRule::Clamped));
}

}  // namespace Orogen
