#include "devices/converters/ShadowTracer.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "framework/Terrain.h"

namespace basekit {

namespace {

// The terrain must rise this far above a ray to block it.
constexpr float kMargin = 0.00001f;

// Steps the fast tracer marches eight rays abreast before it uses the pyramid.
constexpr int32_t kNearSteps = 16;

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
        sizeU = width;
        sizeV = height;
        lines = heights;
    } else if (std::fabs(step.dy) == 1.0f) {
        // Columns are copied into rows, so that a line's samples lie side by side.
        mode = Mode::Columns;
        du = step.dy;
        dv = step.dx;
        sizeU = height;
        sizeV = width;
        transposed.resize(count);
        for (int32_t y = 0; y < height; ++y)
            for (int32_t x = 0; x < width; ++x)
                transposed[static_cast<size_t>(x) * height + y] =
                    heights[static_cast<size_t>(y) * width + x];
        lines = transposed.data();
    } else {
        return;
    }
    dz = step.dz;

    // Level 0 is the lines themselves; each level above holds the maxima of 2
    // by 2 blocks of the one below, up to a single sample.
    levels.push_back(lines);
    levelWidth.push_back(sizeU);
    int32_t lw = sizeU, lh = sizeV;
    while (lw > 1 || lh > 1) {
        const int32_t nw = (lw + 1) / 2, nh = (lh + 1) / 2;
        const float* below = levels.back();
        std::vector<float>& level = maxima.emplace_back(static_cast<size_t>(nw) * nh);
        for (int32_t j = 0; j < nh; ++j) {
            const float* r0 = below + static_cast<int64_t>(2 * j) * lw;
            const float* r1 = below + static_cast<int64_t>(std::min(2 * j + 1, lh - 1)) * lw;
            for (int32_t i = 0; i < nw; ++i) {
                const int32_t i1 = std::min(2 * i + 1, lw - 1);
                level[static_cast<size_t>(j) * nw + i] =
                    std::max(std::max(r0[2 * i], r0[i1]), std::max(r1[2 * i], r1[i1]));
            }
        }
        levels.push_back(level.data());
        levelWidth.push_back(nw);
        lw = nw;
        lh = nh;
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
    Line line;
    line.minor.resize(static_cast<size_t>(2) * std::max(width, height));
    for (int32_t index = first; index <= last; ++index) {
        MarchMinor(index, line);
        TraceLine(line, shadow);
    }
}

// Every ray of a line starts at v = line and adds dv, so all share one minor
// march: the row of `lines` each step reads, up to the step that leaves.
void ShadowTracer::MarchMinor(int32_t index, Line& line) const {
    const int32_t limit = 2 * std::max(width, height);
    line.index = index;
    line.endV = limit;
    float v = static_cast<float>(index);
    line.minor[0] = index;
    for (int32_t k = 1; k < limit; ++k) {
        v += dv;
        if (v >= static_cast<float>(sizeV) || v < 0.0f) {
            line.endV = k;
            break;
        }
        line.minor[k] = ClampIndex(v, sizeV);
    }
}

// Along a line the samples are the major axis u, stepped by exactly du = +-1,
// so a ray's u after k steps is u0 + k du. Only the height differs from ray to
// ray. Rays are marched eight abreast for their first steps (the same
// additions in lanes, reading neighbouring samples); those still open go on
// alone through the pyramid.
void ShadowTracer::TraceLine(const Line& line, float* shadow) const {
    const bool forward = du > 0.0f;
    const int32_t limit = 2 * std::max(width, height);
    const int32_t endUV = std::min(limit, line.endV);
    const float* row0 = lines + static_cast<int64_t>(line.index) * sizeU;
    auto store = [&](int32_t u0, float lit) {
        const int64_t at = mode == Mode::Rows ? static_cast<int64_t>(line.index) * width + u0
                                              : static_cast<int64_t>(u0) * width + line.index;
        shadow[at] = lit;
    };
    constexpr int32_t kLanes = 8;
    int32_t u0 = 0;
    for (; u0 + kLanes <= sizeU; u0 += kLanes) {
        // The lane whose ray leaves the grid first along u bounds the steps
        // all eight take together.
        const int32_t laneEnd = forward ? sizeU - (u0 + kLanes - 1) : u0 + 1;
        const int32_t together = std::min({endUV, laneEnd, kNearSteps});
        // GNU vector extensions (GCC, Clang, MinGW): lane-wise IEEE additions
        // and comparisons, the scalar march's in every lane.
        typedef float Lanes __attribute__((vector_size(4 * kLanes)));
        typedef int32_t Masks __attribute__((vector_size(4 * kLanes)));
        Lanes z;
        std::memcpy(&z, row0 + u0, sizeof z);
        Masks done = {}, dark = {};
        for (int32_t k = 1; k < together; ++k) {
            Lanes ground;
            std::memcpy(
                &ground,
                lines + static_cast<int64_t>(line.minor[k]) * sizeU + u0 + (forward ? k : -k),
                sizeof ground);
            z += dz;
            const Masks out = z >= 1.0f;
            const Masks hit = z + kMargin < ground;
            dark |= ~done & ~out & hit;
            done |= out | hit;
            bool open = false;
            for (int32_t j = 0; j < kLanes; ++j) open |= done[j] == 0;
            if (!open) break;
        }
        for (int32_t j = 0; j < kLanes; ++j) {
            const int32_t u = u0 + j;
            if (done[j]) {
                store(u, dark[j] ? 0.0f : 1.0f);
            } else {
                const int32_t end = std::min(endUV, forward ? sizeU - u : u + 1);
                store(u, TraceFrom(line, u, together, together - 1, z[j], end));
            }
        }
    }
    for (; u0 < sizeU; ++u0) {
        const int32_t end = std::min(endUV, forward ? sizeU - u0 : u0 + 1);
        store(u0, TraceFrom(line, u0, 1, 0, row0[u0], end));
    }
}

// The ray from u0 on from step k, whose exact height after `steps` steps is
// `z`: after k steps its height is within k * 2^-24 of pz0 + k dz (each
// addition rounds by at most half an ulp below 2), which decides most tests
// without the additions; they are made only where that band straddles a
// decision. Stretches of the ray that stay above the pyramid's maxima are
// passed over whole.
float ShadowTracer::TraceFrom(const Line& line, int32_t u0, int32_t k, int32_t steps, float z,
                              int32_t end) const {
    const bool forward = du > 0.0f;
    const int32_t top = static_cast<int32_t>(levels.size()) - 1;
    const double pz0 = lines[static_cast<int64_t>(line.index) * sizeU + u0];
    const double margin = static_cast<double>(kMargin);
    const double perStep = dz == 0.0f ? 0.0 : 0x1p-24;  // no rounding when nothing is added
    constexpr double kSumRounding = 0x1p-24;            // of pz + margin, below 2
    constexpr double kSlack = 1e-12;                    // the double sums here
    auto cell = [&](int32_t l, int32_t cu, int32_t cv) {
        return levels[l][static_cast<int64_t>(cv) * levelWidth[l] + cu];
    };
    int32_t l = 0;
    k = std::max(k, 1);  // step 0 compares the start with itself and never blocks
    while (k < end) {
        const double a = pz0 + k * static_cast<double>(dz);
        const double band = k * perStep + kSlack;
        if (a - band >= 1.0) return 1.0f;  // certainly out of the height range by now
        const int32_t u = forward ? u0 + k : u0 - k;
        const int32_t cu = u >> l;
        const int32_t segmentEnd =
            std::min(end, k + (forward ? ((cu + 1) << l) - u : u - (cu << l) + 1));
        int32_t vLow = line.minor[k], vHigh = line.minor[segmentEnd - 1];
        if (vLow > vHigh) std::swap(vLow, vHigh);
        float ground = cell(l, cu, vLow >> l);
        for (int32_t cv = (vLow >> l) + 1; cv <= vHigh >> l; ++cv)
            ground = std::max(ground, cell(l, cu, cv));
        // The ray climbs, so its lowest point in the stretch is at k.
        const double bandEnd = (segmentEnd - 1) * perStep + kSlack;
        if (a + margin - bandEnd - kSumRounding >= ground) {
            k = segmentEnd;
            if (l < top) ++l;
            continue;
        }
        if (l > 0) {
            --l;
            continue;
        }
        // Certainly still in range and below the ground.
        if (a + band < 1.0 && a + margin + band + kSumRounding < ground) return 0.0f;
        while (steps < k) {
            z += dz;
            ++steps;
            if (z >= 1.0f) return 1.0f;
        }
        if (z + kMargin < ground) return 0.0f;
        ++k;
    }
    return 1.0f;
}

}  // namespace basekit
