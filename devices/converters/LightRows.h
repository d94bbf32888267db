// The light map's row loop, written once over the path's tag type: the same
// IEEE operations for every sample, without branches, so that the compiler
// vectorises it for the path it is compiled for (LightAvx2.cpp includes it
// between a target's BEGIN and END lines). Soft clipping uses the lane form
// of Orogen::Exp; the rare sample outside its range is redone with Exp itself.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "framework/PowLanes.h"
#include "devices/converters/LightKernels.h"
#include "framework/Neighbourhood.h"
#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit::light {

// 1 - e^(-1.5 v); `ok` false where -1.5 v is NaN or beyond ±700, whose
// result here means nothing.
template <class Path>
[[gnu::always_inline]] inline float SoftClipLane(float v, int32_t& ok) {
    const float x = -1.5f * v;
    ok = int32_t(x > -700.0f) & int32_t(x < 700.0f);
    const uint64_t keep = 0 - static_cast<uint64_t>(ok);
    const double t = std::bit_cast<double>(std::bit_cast<uint64_t>(static_cast<double>(x)) & keep);
    return 1.0f - static_cast<float>(Orogen::ExpLane<Path>(t));
}

inline float SoftClip(float v) {
    return 1.0f - static_cast<float>(Orogen::Exp(static_cast<double>(-1.5f * v)));
}

template <class Path>
void LightRowsOf(const LightSetup& s, const float* heights, const Orogen::Grid& grid,
                 const float* shadow, int32_t first, int32_t last, float* out) {
    const int32_t width = grid.width, height = grid.height;
    if (width <= 0 || height <= 0) return;
    const Orogen::SlopeScale scale(grid);
    const size_t n = static_cast<size_t>(width);
    std::vector<float> gx(n), gy(n), direct(n), sky(n), ones(shadow ? 0 : n, 1.0f);
    const float l0 = s.light[0], l1 = s.light[1], l2 = s.light[2];
    const float diffuse = s.diffuse, skyLevel = s.sky;
    const bool withDirect = s.terms == kLightAllTerms;
    const bool withSky = s.terms == kLightIndirectOnly || s.terms == kLightAllTerms;
    for (int32_t y = first; y <= last; ++y) {
        const int64_t row = static_cast<int64_t>(y) * width;
        scale.SlopeRow(heights, width, height, y, gx.data(), gy.data());
        const float* lit = shadow ? shadow + row : ones.data();
        float* d = direct.data();
        float* k = sky.data();
        const auto shade = [&](int32_t x, float nx, float ny, float nz) {
            const float facing = std::max(0.0f, nx * l0 + ny * l1 + nz * l2) * lit[x] * diffuse;
            d[x] = withDirect ? facing : lit[x];
            const float open = skyLevel * std::max(0.0f, (2.0f * nz + 1.0f) / 3.0f);
            k[x] = withSky ? open : 0.0f;
        };
        int32_t steep = 0;
        for (int32_t x = 0; x < width; ++x) {
            float normal[3];
            Orogen::ShallowSlopeNormal(gx[x], gy[x], normal);
            shade(x, normal[0], normal[1], normal[2]);
            steep |= static_cast<int32_t>(Orogen::SteepSlope(gx[x], gy[x]));
        }
        // Slopes whose squares may overflow: the row again through the scaled normal.
        if (steep)
            for (int32_t x = 0; x < width; ++x) {
                float normal[3];
                Orogen::SlopeNormal(gx[x], gy[x], normal);
                shade(x, normal[0], normal[1], normal[2]);
            }
        int32_t bad = 0;
        if (!s.colour) {
            float* o = out + row;
            if (s.softClip) {
                for (int32_t x = 0; x < width; ++x) {
                    int32_t ok;
                    o[x] = SoftClipLane<Path>(d[x] + k[x], ok);
                    bad |= ok ^ 1;
                }
                if (bad)
                    for (int32_t x = 0; x < width; ++x) o[x] = SoftClip(d[x] + k[x]);
            } else {
                for (int32_t x = 0; x < width; ++x) o[x] = std::min(d[x] + k[x], 1.0f);
            }
            continue;
        }
        float* o = out + 3 * row;
        for (int32_t c = 0; c < 3; ++c) {
            const float sun = s.sunColour[c], skyColour = s.skyColour[c];
            if (s.softClip) {
                for (int32_t x = 0; x < width; ++x) {
                    int32_t ok;
                    o[3 * x + c] = SoftClipLane<Path>(sun * d[x] + skyColour * k[x], ok);
                    bad |= ok ^ 1;
                }
            } else {
                for (int32_t x = 0; x < width; ++x)
                    o[3 * x + c] = std::min(sun * d[x] + skyColour * k[x], 1.0f);
            }
        }
        if (bad)
            for (int32_t x = 0; x < width; ++x)
                for (int32_t c = 0; c < 3; ++c)
                    o[3 * x + c] = SoftClip(s.sunColour[c] * d[x] + s.skyColour[c] * k[x]);
    }
}

}  // namespace basekit::light
