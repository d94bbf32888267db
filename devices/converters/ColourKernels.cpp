#include "devices/converters/ColourKernels.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "devices/converters/ColourPaths.h"
#include "framework/Neighbourhood.h"
#include "framework/Terrain.h"

namespace basekit {

void HsbToRgb(float h, float s, float v, float pixel[3]) {
    // 359.9, not 360: hue 1 lands in sector 5 instead of wrapping to red.
    const float sector = h * 359.9f / 60.0f;
    const float whole = std::floor(sector);
    if (!(whole >= 0.0f && whole <= 5.0f)) return;
    const float f = sector - whole;
    const float p = (1.0f - s) * v;
    const float q = (1.0f - f * s) * v;
    const float t = (1.0f - (1.0f - f) * s) * v;
    const float table[6][3] = {{v, t, p}, {q, v, p}, {p, v, t}, {p, q, v}, {t, p, v}, {v, p, q}};
    const float* rgb = table[static_cast<int>(whole)];
    pixel[0] = rgb[0];
    pixel[1] = rgb[1];
    pixel[2] = rgb[2];
}

void RgbToHsb(float r, float g, float b, float hsb[3]) {
    const float M = std::max(std::max(r, g), b);
    const float m = std::min(std::min(r, g), b);
    if (m == M || M == 0.0f) {
        hsb[0] = 0.0f;
        hsb[1] = 0.0f;
        hsb[2] = M;
        return;
    }
    const float d = M - m;
    float h;
    if (M == r) {
        h = (g - b) / d * 60.0f / 360.0f;
        if (g < b) h += 1.0f;
    } else if (M == g) {
        h = ((b - r) / d * 60.0f + 120.0f) / 360.0f;
    } else if (M == b) {
        h = ((r - g) / d * 60.0f + 240.0f) / 360.0f;
    } else {
        hsb[0] = hsb[1] = hsb[2] = 0.0f;
        return;
    }
    hsb[0] = h;
    hsb[1] = 1.0f - m / M;
    hsb[2] = M;
}

void ColourRampRows(const float* heights, int32_t width, int32_t first, int32_t last,
                    const float low[3], const float high[3], float* rgb) {
    const float r = low[0], g = low[1], b = low[2];
    const float dr = high[0] - r, dg = high[1] - g, db = high[2] - b;
    const auto begin = static_cast<int64_t>(first) * width;
    const auto end = (static_cast<int64_t>(last) + 1) * width;
    for (int64_t i = begin; i < end; ++i) {
        const float h = heights[i];
        rgb[3 * i] = r + dr * h;
        rgb[3 * i + 1] = g + dg * h;
        rgb[3 * i + 2] = b + db * h;
    }
}

// The vector paths have AVX2 forms only: AVX-512 runs them too.
static bool UseAvx2(VectorPath path) {
    return UsablePath(path) != VectorPath::Plain;
}

void CombineChannelRows(const float* const channels[3], int32_t width, int32_t first, int32_t last,
                        bool hsb, float* rgb, VectorPath path) {
    const float *a = channels[0], *b = channels[1], *c = channels[2];
    const auto begin = static_cast<int64_t>(first) * width;
    const auto end = (static_cast<int64_t>(last) + 1) * width;
    if (!hsb) {
        for (int64_t i = begin; i < end; ++i) {
            rgb[3 * i] = a[i];
            rgb[3 * i + 1] = b[i];
            rgb[3 * i + 2] = c[i];
        }
        return;
    }
    int64_t i = begin;
    if (UseAvx2(path) && end > begin)
        i += colour::CombineHsbAvx2(a + begin, b + begin, c + begin, end - begin, rgb + 3 * begin);
    for (; i < end; ++i) {
        // Converted in place: a hue out of the sectors keeps the HSB values.
        float* pixel = rgb + 3 * i;
        pixel[0] = a[i];
        pixel[1] = b[i];
        pixel[2] = c[i];
        HsbToRgb(a[i], b[i], c[i], pixel);
    }
}

void SplitChannelRows(const float* rgb, int32_t width, int32_t first, int32_t last, bool hsb,
                      float* const channels[3], VectorPath path) {
    float *a = channels[0], *b = channels[1], *c = channels[2];
    const auto begin = static_cast<int64_t>(first) * width;
    const auto end = (static_cast<int64_t>(last) + 1) * width;
    if (!hsb) {
        // Vector stores here spare the three outputs from stalling one another.
        int64_t i = begin;
        if (UseAvx2(path) && end > begin)
            i +=
                colour::SplitRgbAvx2(rgb + 3 * begin, end - begin, a + begin, b + begin, c + begin);
        for (; i < end; ++i) {
            a[i] = rgb[3 * i];
            b[i] = rgb[3 * i + 1];
            c[i] = rgb[3 * i + 2];
        }
        return;
    }
    int64_t i = begin;
    if (UseAvx2(path) && end > begin)
        i += colour::SplitHsbAvx2(rgb + 3 * begin, end - begin, a + begin, b + begin, c + begin);
    for (; i < end; ++i) {
        float out[3];
        RgbToHsb(rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2], out);
        a[i] = out[0];
        b[i] = out[1];
        c[i] = out[2];
    }
}

void NormalRows(const NormalSetup& s, int32_t first, int32_t last, float* rgb, VectorPath path) {
    const int32_t width = s.grid.width, height = s.grid.height;
    if (width <= 0 || height <= 0) return;
    const Orogen::SlopeScale scale(s.grid);
    std::vector<float> gx(static_cast<size_t>(width)), gy(static_cast<size_t>(width));
    const float halfX = 0.5f * s.flipX, halfY = 0.5f * s.flipY;
    const bool avx2 = UseAvx2(path);
    for (int32_t y = first; y <= last; ++y) {
        scale.SlopeRow(s.heights, width, height, y, gx.data(), gy.data());
        float* out = rgb + static_cast<int64_t>(y) * width * 3;
        int32_t x =
            avx2 ? colour::EncodeNormalsAvx2(gx.data(), gy.data(), width, halfX, halfY, out) : 0;
        for (; x < width; ++x) {
            float n[3];
            Orogen::SlopeNormal(gx[x], gy[x], n);
            out[3 * x] = std::clamp(halfX * n[0] + 0.5f, 0.0f, 1.0f);
            out[3 * x + 1] = std::clamp(halfY * n[1] + 0.5f, 0.0f, 1.0f);
            out[3 * x + 2] = std::clamp(0.5f * n[2] + 0.5f, 0.0f, 1.0f);
        }
    }
}

}  // namespace basekit
