#include "devices/natural/snow/SnowKernels.h"

#include <algorithm>
#include <cmath>

#include "devices/natural/snow/SnowPaths.h"

namespace basekit {

const float kSnowDiagonal = 1.0f / std::sqrt(2.0f);

namespace {

// One sample, as the vector paths must reproduce it.
inline float SnowSample(const SnowPass& p, int32_t x, int32_t y, float keep) {
    const int64_t w = p.width;
    const int64_t i = static_cast<int64_t>(y) * w + x;
    const float* S = p.snow;
    const float* T = p.terrain;
    const float own = S[i];
    const float c = own + T[i];
    // North, south, west, east, then the diagonals.
    const int64_t neighbours[8] = {i - w,     i + w,     i - 1,     i + 1,
                                   i - w - 1, i - w + 1, i + w - 1, i + w + 1};
    float acc = 0.0f;
    for (int k = 0; k < 8; ++k) {
        const int64_t n = neighbours[k];
        float d = S[n] + T[n] - c;
        if (k >= 4) d *= kSnowDiagonal;
        if (d > 0.0f)
            acc += S[n] < d ? S[n] : d;  // a higher neighbour gives at most its snow
        else if (d < 0.0f)
            acc -= own < -d ? own : -d;  // a lower one takes at most this cell's
    }
    float next = own + acc * 0.125f;
    float melt = p.evaporation.At(static_cast<uint64_t>(i));
    if (p.snowLine > T[i]) melt += (p.snowLine - T[i]) * 0.025f;
    next = next - melt;
    if (next < 0.0f) next = 0.0f;
    return next + p.fall.At(static_cast<uint64_t>(i)) * keep;
}

}  // namespace

void SnowPassRows(const SnowPass& pass, int32_t firstRow, int32_t lastRow, VectorPath path) {
    firstRow = std::max(firstRow, 1);
    lastRow = std::min(lastRow, pass.height - 2);
    const int32_t end = pass.width - 1;
    if (end <= 1) return;
    path = UsablePath(path);
    const float keep = 1.0f - pass.taper;
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        int32_t x = 1;
        if (path == VectorPath::Avx512)
            x = snow::SnowRowAvx512(pass, y, x, end);
        else if (path == VectorPath::Avx2)
            x = snow::SnowRowAvx2(pass, y, x, end);
        float* out = pass.next + static_cast<int64_t>(y) * pass.width;
        for (; x < end; ++x) out[x] = SnowSample(pass, x, y, keep);
    }
}

}  // namespace basekit
