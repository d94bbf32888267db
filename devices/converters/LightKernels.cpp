#include "devices/converters/LightKernels.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "framework/Neighbourhood.h"
#include "framework/PortableMath.h"

namespace basekit {

constexpr float kDegree = 0.017453292f;

void NormaliseLight(float light[3]) {
    const float length = std::sqrt(light[0] * light[0] + light[1] * light[1] + light[2] * light[2]);
    for (int i = 0; i < 3; ++i) light[i] /= length;
}

void SunDirection(int32_t heading, int32_t altitude, float light[3]) {
    const float h = -static_cast<float>(heading) * kDegree;
    const float a = static_cast<float>(altitude) * kDegree;
    const float ca = Orogen::Cos(a);
    light[0] = ca * Orogen::Cos(h);
    light[1] = ca * Orogen::Sin(h);
    light[2] = Orogen::Sin(a);
    NormaliseLight(light);
}

namespace {

// 1 - e^(-1.5 v): brightness that approaches 1 instead of clipping.
inline float SoftClip(float v) {
    return 1.0f - static_cast<float>(Orogen::Exp(static_cast<double>(-1.5f * v)));
}

}  // namespace

void LightRows(const LightSetup& s, const float* heights, const Orogen::Grid& grid,
               const float* shadow, int32_t first, int32_t last, float* out) {
    const int32_t width = grid.width, height = grid.height;
    if (width <= 0 || height <= 0) return;
    const Orogen::SlopeScale scale(grid);
    std::vector<float> gx(static_cast<size_t>(width)), gy(static_cast<size_t>(width));
    const float* l = s.light;
    const bool direct = s.terms == kLightAllTerms;
    const bool sky = s.terms == kLightIndirectOnly || s.terms == kLightAllTerms;
    for (int32_t y = first; y <= last; ++y) {
        scale.SlopeRow(heights, width, height, y, gx.data(), gy.data());
        const int64_t row = static_cast<int64_t>(y) * width;
        for (int32_t x = 0; x < width; ++x) {
            const float len = std::sqrt(gx[x] * gx[x] + gy[x] * gy[x] + 1.0f);
            const float nx = gx[x] / len, ny = gy[x] / len, nz = 1.0f / len;
            const float lit = shadow ? shadow[row + x] : 1.0f;
            const float d =
                direct ? std::max(0.0f, nx * l[0] + ny * l[1] + nz * l[2]) * lit * s.diffuse : lit;
            const float k = sky ? s.sky * std::max(0.0f, (2.0f * nz + 1.0f) / 3.0f) : 0.0f;
            if (!s.colour) {
                const float v = d + k;
                out[row + x] = s.softClip ? SoftClip(v) : std::min(v, 1.0f);
                continue;
            }
            float* rgb = out + 3 * (row + x);
            for (int c = 0; c < 3; ++c) {
                const float v = s.sunColour[c] * d + s.skyColour[c] * k;
                rgb[c] = s.softClip ? SoftClip(v) : std::min(v, 1.0f);
            }
        }
    }
}

}  // namespace basekit
