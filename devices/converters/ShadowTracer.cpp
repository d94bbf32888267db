#include "devices/converters/ShadowTracer.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "framework/Terrain.h"

namespace basekit {

namespace {

// The terrain must rise this far above a ray to block it.
constexpr float kMargin = 0.00001f;

// A line's rays are marched together for at least this many steps, and on
// while one in kSparse of the span is open.
constexpr int32_t kNearSteps = 16;
constexpr int32_t kSparse = 2;

// The fate of a ray marched with its line.
constexpr int32_t kOpen = 0, kLit = 1, kDark = 2;

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
    if (std::isnan(step.dz)) {
        // A light scaled by a zero density: from the first step on the ray's
        // height is NaN, which neither meets the ground nor leaves the range,
        // and the start never blocks itself; the march would only count its
        // steps out.
        mode = Mode::AllLit;
        return;
    }
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
    if (mode == Mode::AllLit) {
        for (int32_t y = first; y <= last; ++y)
            std::fill_n(shadow + static_cast<int64_t>(y) * width, width, 1.0f);
        return;
    }
    if (mode == Mode::Literal) {
        TraceShadowRowsLiteral(heights, width, height, light, first, last, shadow);
        return;
    }
    Line line;
    line.minor.resize(static_cast<size_t>(2) * std::max(width, height));
    line.z.resize(static_cast<size_t>(sizeU));
    line.state.resize(static_cast<size_t>(sizeU));
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
// so the ray from u0 is at u0 + k du after k steps, and at step k every ray of
// the line reads one row shifted by k. So all rays of the line are marched
// together, step by step, over the span still open (the same additions in
// vector lanes, reading neighbouring samples), while many are open; the few
// left go on alone through the pyramid.
void ShadowTracer::TraceLine(Line& line, float* shadow) const {
    const bool forward = du > 0.0f;
    const int32_t limit = 2 * std::max(width, height);
    const int32_t endUV = std::min(limit, line.endV);
    const float* row0 = lines + static_cast<int64_t>(line.index) * sizeU;
    float* z = line.z.data();
    int32_t* state = line.state.data();  // kOpen, kLit or kDark
    std::copy(row0, row0 + sizeU, z);
    std::fill_n(state, sizeU, kOpen);
    int32_t lo = 0, hi = sizeU, open = sizeU;  // the open rays lie in lo..hi-1
    int32_t k = 1;
    for (; k < endUV; ++k) {
        if (k % 8 == 0) {
            while (lo < hi && state[lo] != kOpen) ++lo;
            while (hi > lo && state[hi - 1] != kOpen) --hi;
            open = static_cast<int32_t>(std::count(state + lo, state + hi, kOpen));
            // Sparse: marching the span costs more than the rays alone.
            if (k >= kNearSteps && open * kSparse < hi - lo) break;
        }
        // The ray that leaves the grid along u at this step ends lit.
        const int32_t leaving = forward ? sizeU - k : k - 1;
        if (leaving >= 0 && leaving < sizeU && state[leaving] == kOpen) state[leaving] = kLit;
        if (forward)
            hi = std::min(hi, sizeU - k);
        else
            lo = std::max(lo, k);
        if (lo >= hi) break;
        const float* ground =
            lines + static_cast<int64_t>(line.minor[k]) * sizeU + (forward ? k : -k);
        MarchSpan(z, state, ground, lo, hi);
    }
    for (int32_t u0 = 0; u0 < sizeU; ++u0) {
        float lit = state[u0] == kDark ? 0.0f : 1.0f;
        if (state[u0] == kOpen) {
            const int32_t end = std::min(endUV, forward ? sizeU - u0 : u0 + 1);
            lit = TraceFrom(line, u0, k, k - 1, z[u0], end);
        }
        const int64_t at = mode == Mode::Rows ? static_cast<int64_t>(line.index) * width + u0
                                              : static_cast<int64_t>(u0) * width + line.index;
        shadow[at] = lit;
    }
}

// One step of the rays lo..hi-1 of a line: z += dz, then an open ray leaves
// the height range (lit) or meets ground[u0] (dark).
void ShadowTracer::MarchSpan(float* z, int32_t* state, const float* ground, int32_t lo,
                             int32_t hi) const {
    constexpr int32_t kLanes = 8;
    // GNU vector extensions (GCC, Clang, MinGW): lane-wise IEEE additions and
    // comparisons, the scalar march's in every lane.
    typedef float Lanes __attribute__((vector_size(4 * kLanes)));
    typedef int32_t Masks __attribute__((vector_size(4 * kLanes)));
    int32_t u = lo;
    for (; u + kLanes <= hi; u += kLanes) {
        Lanes height, floor;
        Masks was;
        std::memcpy(&height, z + u, sizeof height);
        std::memcpy(&floor, ground + u, sizeof floor);
        std::memcpy(&was, state + u, sizeof was);
        height += dz;
        const Masks isOpen = was == kOpen;
        const Masks out = height >= 1.0f;
        const Masks hit = height + kMargin < floor;
        was |= isOpen & ((out & kLit) | (~out & hit & kDark));
        std::memcpy(z + u, &height, sizeof height);
        std::memcpy(state + u, &was, sizeof was);
    }
    for (; u < hi; ++u) {
        z[u] += dz;
        if (state[u] != kOpen) continue;
        if (z[u] >= 1.0f)
            state[u] = kLit;
        else if (z[u] + kMargin < ground[u])
            state[u] = kDark;
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
