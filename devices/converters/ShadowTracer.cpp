#include "devices/converters/ShadowTracer.h"

#include <algorithm>
#include <cmath>

#include "framework/Terrain.h"

namespace basekit {

namespace {

// The terrain must rise this far above a ray to block it.
constexpr float kMargin = 0.00001f;

// trunc(p) clamped into 0..size-1 (NaN to 0, as the conversion and clamp do
// on the machines that build the module).
inline int32_t ClampIndex(float p, int32_t size) {
    if (!(p >= 0.0f)) return 0;
    if (p >= static_cast<float>(size)) return size - 1;
    return std::min(static_cast<int32_t>(p), size - 1);
}

struct Steps {
    float dx, dy, dz;
};

// One sample along the dominant horizontal axis a step, toward the light.
Steps MarchSteps(const float light[3]) {
    float m = std::max(std::fabs(light[0]), std::fabs(light[1]));
    if (m < 0.001f) m = 0.001f;
    return {-light[0] / m, -light[1] / m, light[2] / m};
}

}  // namespace

void TracerLight(const float light[3], const Orogen::Grid& grid, float out[3]) {
    for (int i = 0; i < 3; ++i) out[i] = light[i];
    if (grid.verticalScale == 0.0) return;
    out[2] = out[2] / static_cast<float>(Orogen::SamplesPerUnit(grid)) /
             static_cast<float>(grid.verticalScale);
    const float length = std::sqrt(out[0] * out[0] + out[1] * out[1] + out[2] * out[2]);
    for (int i = 0; i < 3; ++i) out[i] /= length;
}

void TraceShadowRowsLiteral(const float* heights, int32_t width, int32_t height,
                            const float light[3], int32_t first, int32_t last, float* shadow) {
    const Steps step = MarchSteps(light);
    const int32_t limit = 2 * std::max(width, height);
    const float w = static_cast<float>(width), h = static_cast<float>(height);
    for (int32_t y = first; y <= last; ++y) {
        for (int32_t x = 0; x < width; ++x) {
            const int64_t at = static_cast<int64_t>(y) * width + x;
            float px = static_cast<float>(x), py = static_cast<float>(y), pz = heights[at];
            float lit = 1.0f;
            for (int32_t i = 0; i < limit; ++i) {
                const float ground = heights[static_cast<int64_t>(ClampIndex(py, height)) * width +
                                             ClampIndex(px, width)];
                if (pz + kMargin < ground) {
                    lit = 0.0f;
                    break;
                }
                px += step.dx;
                py += step.dy;
                pz += step.dz;
                if (px >= w || px < 0.0f || py >= h || py < 0.0f || pz >= 1.0f || pz < 0.0f) break;
            }
            shadow[at] = lit;
        }
    }
}

ShadowTracer::ShadowTracer(const float* heights, int32_t width, int32_t height,
                           const float lightIn[3])
    : heights(heights), width(width), height(height) {
    for (int i = 0; i < 3; ++i) light[i] = lightIn[i];
    if (width <= 0 || height <= 0) return;
    const Steps step = MarchSteps(light);
    // The bounds below hold for rays that climb by at most 1 a step from
    // ground in 0..1; anything else takes the plain march (rays that climb
    // faster leave at their first step anyway).
    if (!std::isfinite(step.dx) || !std::isfinite(step.dy) || !(step.dz >= 0.0f) ||
        !(step.dz <= 1.0f))
        return;
    const uint64_t count = static_cast<uint64_t>(width) * static_cast<uint64_t>(height);
    for (uint64_t i = 0; i < count; ++i)
        if (!(heights[i] >= 0.0f && heights[i] <= 1.0f)) return;
    if (std::fabs(step.dx) == 1.0f) {
        mode = Mode::Rows;
        du = step.dx;
        dv = step.dy;
    } else if (std::fabs(step.dy) == 1.0f) {
        mode = Mode::Columns;
        du = step.dy;
        dv = step.dx;
    } else {
        return;
    }
    dz = step.dz;

    // Level 0 is the terrain itself; each level above holds the maxima of 2 by
    // 2 blocks of the one below, up to a single sample.
    levels.emplace_back();
    levelWidth.push_back(width);
    int32_t lw = width, lh = height;
    const float* below = heights;
    while (lw > 1 || lh > 1) {
        const int32_t nw = (lw + 1) / 2, nh = (lh + 1) / 2;
        std::vector<float> level(static_cast<size_t>(nw) * nh);
        for (int32_t j = 0; j < nh; ++j) {
            const float* r0 = below + static_cast<int64_t>(2 * j) * lw;
            const float* r1 = below + static_cast<int64_t>(std::min(2 * j + 1, lh - 1)) * lw;
            for (int32_t i = 0; i < nw; ++i) {
                const int32_t i1 = std::min(2 * i + 1, lw - 1);
                level[static_cast<size_t>(j) * nw + i] =
                    std::max(std::max(r0[2 * i], r0[i1]), std::max(r1[2 * i], r1[i1]));
            }
        }
        levels.push_back(std::move(level));
        levelWidth.push_back(nw);
        lw = nw;
        lh = nh;
        below = levels.back().data();
    }
}

// Line `line` (a row, or with kColumns a column): the samples along it are
// the major axis u, stepped by exactly du = +-1, so that a ray's u after k
// steps is u0 + k du; every ray of the line starts at v = line and adds dv,
// so all share one minor march. Only the height differs from ray to ray: after
// k steps it is within k * 2^-24 of pz0 + k dz (each addition rounds by at
// most half an ulp below 2), which decides most tests without the additions.
template <bool kColumns>
void ShadowTracer::TraceLine(int32_t line, float* shadow, std::vector<int32_t>& minorIndex) const {
    const int32_t sizeU = kColumns ? height : width, sizeV = kColumns ? width : height;
    const int64_t strideU = kColumns ? width : 1, strideV = kColumns ? 1 : width;
    const int32_t limit = 2 * std::max(width, height);
    const int32_t top = static_cast<int32_t>(levels.size()) - 1;

    int32_t endV = limit;  // the first step whose minor position is off the grid
    float v = static_cast<float>(line);
    minorIndex[0] = line;
    for (int32_t k = 1; k < limit; ++k) {
        v += dv;
        if (v >= static_cast<float>(sizeV) || v < 0.0f) {
            endV = k;
            break;
        }
        minorIndex[k] = ClampIndex(v, sizeV);
    }

    // Maximum of the level-l cell (cu, cv).
    auto cell = [&](int32_t l, int32_t cu, int32_t cv) {
        if (l == 0) return heights[cu * strideU + cv * strideV];
        const int32_t cx = kColumns ? cv : cu, cy = kColumns ? cu : cv;
        return levels[l][static_cast<size_t>(cy) * levelWidth[l] + cx];
    };
    const double margin = static_cast<double>(kMargin);
    const double perStep = dz == 0.0f ? 0.0 : 0x1p-24;  // no rounding when nothing is added
    constexpr double kSumRounding = 0x1p-24;            // of pz + margin, below 2
    constexpr double kSlack = 1e-12;                    // the double sums here
    const bool forward = du > 0.0f;

    for (int32_t u0 = 0; u0 < sizeU; ++u0) {
        const int64_t at = u0 * strideU + line * strideV;
        const float pz0 = heights[at];
        const int32_t end = std::min({limit, endV, forward ? sizeU - u0 : u0 + 1});
        float lit = 1.0f;
        // The exact height, added up only as far as a decision needs it.
        int32_t exactSteps = 0;
        float exactZ = pz0;
        int32_t l = 0;
        // Step 0 compares the start with itself and never blocks.
        for (int32_t k = 1; k < end;) {
            const double z = pz0 + k * static_cast<double>(dz);
            const double band = k * perStep + kSlack;
            if (z - band >= 1.0) break;  // certainly out of the height range by now
            const int32_t u = forward ? u0 + k : u0 - k;
            const int32_t cu = u >> l;
            const int32_t segmentEnd =
                std::min(end, k + (forward ? ((cu + 1) << l) - u : u - (cu << l) + 1));
            int32_t vLow = minorIndex[k], vHigh = minorIndex[segmentEnd - 1];
            if (vLow > vHigh) std::swap(vLow, vHigh);
            float ground = cell(l, cu, vLow >> l);
            for (int32_t cv = (vLow >> l) + 1; cv <= vHigh >> l; ++cv)
                ground = std::max(ground, cell(l, cu, cv));
            // The ray climbs, so its lowest point in the stretch is at k.
            const double bandEnd = (segmentEnd - 1) * perStep + kSlack;
            if (z + margin - bandEnd - kSumRounding >= ground) {
                k = segmentEnd;
                if (l < top) ++l;
                continue;
            }
            if (l > 0) {
                --l;
                continue;
            }
            if (z + band < 1.0 && z + margin + band + kSumRounding < ground) {
                lit = 0.0f;  // certainly still in range and below the ground
                break;
            }
            bool out = false;
            while (exactSteps < k) {
                exactZ += dz;
                ++exactSteps;
                if (exactZ >= 1.0f) {
                    out = true;
                    break;
                }
            }
            if (out) break;
            if (exactZ + kMargin < ground) {
                lit = 0.0f;
                break;
            }
            ++k;
        }
        shadow[at] = lit;
    }
}

int32_t ShadowTracer::LineCount() const {
    return mode == Mode::Columns ? width : height;
}

void ShadowTracer::TraceLines(int32_t first, int32_t last, float* shadow) const {
    if (mode == Mode::Literal) {
        TraceShadowRowsLiteral(heights, width, height, light, first, last, shadow);
        return;
    }
    std::vector<int32_t> minorIndex(static_cast<size_t>(2) * std::max(width, height));
    for (int32_t line = first; line <= last; ++line) {
        if (mode == Mode::Rows)
            TraceLine<false>(line, shadow, minorIndex);
        else
            TraceLine<true>(line, shadow, minorIndex);
    }
}

}  // namespace basekit
