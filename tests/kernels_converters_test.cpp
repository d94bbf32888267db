// The converters' kernels: colour models at their sector edges and on
// degenerate colours, every vector path against the plain one, and normals
// against the per-sample slope and normal helpers.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

#include "devices/converters/ColourKernels.h"
#include "framework/Terrain.h"

namespace basekit {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

std::vector<float> Random(size_t count, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    std::vector<float> v(count);
    for (float& x : v) x = u(rng);
    return v;
}

bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

TEST(ColourModels, HsbToRgbBySector) {
    const struct {
        float h, s, v;
        float r, g, b;
        float tolerance;
    } cases[] = {
        // Hue 1 stays in sector 5 (f = 0.99833): nearly pure red.
        {1.0f, 1.0f, 1.0f, 1.0f, 0.0f, 0.0016667f, 1e-6f},
        {0.0f, 1.0f, 1.0f, 1.0f, 0.0f, 0.0f, 0.0f},
        {0.0f, 0.0f, 0.6f, 0.6f, 0.6f, 0.6f, 0.0f},  // no saturation: grey
        {0.7f, 0.0f, 0.3f, 0.3f, 0.3f, 0.3f, 0.0f},
        {0.5f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f},  // no brightness: black
        {0.5f, 1.0f, 1.0f, 0.0f, 1.0f, 0.99917f, 1e-5f},
        {0.25f, 0.5f, 0.8f, 0.60017f, 0.8f, 0.4f, 1e-5f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.h << ", " << c.s << ", " << c.v);
        float pixel[3] = {-1.0f, -1.0f, -1.0f};
        HsbToRgb(c.h, c.s, c.v, pixel);
        EXPECT_NEAR(pixel[0], c.r, c.tolerance);
        EXPECT_NEAR(pixel[1], c.g, c.tolerance);
        EXPECT_NEAR(pixel[2], c.b, c.tolerance);
    }
    // Hues outside the six sectors leave the pixel alone.
    for (float h : {-0.01f, 1.001f, 7.0f, kNaN}) {
        float pixel[3] = {0.25f, 0.5f, 0.75f};
        HsbToRgb(h, 1.0f, 1.0f, pixel);
        EXPECT_EQ(pixel[0], 0.25f) << h;
        EXPECT_EQ(pixel[1], 0.5f) << h;
        EXPECT_EQ(pixel[2], 0.75f) << h;
    }
}

TEST(ColourModels, RgbToHsbExactValues) {
    const struct {
        float r, g, b;
        float h, s, v;
    } cases[] = {
        {0.4f, 0.4f, 0.4f, 0.0f, 0.0f, 0.4f},  // grey: hue and saturation 0
        {0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f},
        {1.0f, 0.0f, 0.0f, 0.0f, 1.0f, 1.0f},
        {0.0f, 1.0f, 0.0f, 120.0f / 360.0f, 1.0f, 1.0f},
        {0.0f, 0.0f, 0.5f, 240.0f / 360.0f, 1.0f, 0.5f},
        {1.0f, 0.0f, 0.5f, -30.0f / 360.0f + 1.0f, 1.0f, 1.0f},  // g < b wraps
        {0.8f, 0.6f, 0.2f, (0.4f / 0.6f * 60.0f) / 360.0f, 1.0f - 0.2f / 0.8f, 0.8f},
        {kNaN, 0.5f, 0.2f, 0.0f, 0.0f, 0.0f},  // the maximum is NaN: black
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.r << ", " << c.g << ", " << c.b);
        float hsb[3];
        RgbToHsb(c.r, c.g, c.b, hsb);
        EXPECT_FLOAT_EQ(hsb[0], c.h);
        EXPECT_EQ(hsb[1], c.s);
        EXPECT_EQ(hsb[2], c.v);
    }
}

TEST(ColourKernels, RampRowsAndHsbOnEveryPath) {
    const int32_t width = 37, height = 5;  // rows not a multiple of the vector width
    const size_t n = static_cast<size_t>(width) * height;
    std::vector<float> rgb(3 * n, -1.0f);

    // The ramp is not clamped, and rows outside first..last are not touched.
    const float teal[3] = {0.0f, 0.5f, 0.25f}, white[3] = {1, 1, 1};
    const std::vector<float> high(n, 2.0f);
    ColourRampRows(high.data(), width, 1, 2, teal, white, rgb.data());
    EXPECT_EQ(rgb[0], -1.0f);
    EXPECT_EQ(rgb[3 * width], 2.0f);
    EXPECT_EQ(rgb[3 * width + 1], 1.5f);
    EXPECT_EQ(rgb[3 * n - 1], -1.0f);

    const std::vector<float> a = Random(n, 2), b = Random(n, 3), c = Random(n, 4);
    std::vector<float> parts[3] = {std::vector<float>(n), std::vector<float>(n),
                                   std::vector<float>(n)};
    float* const out[3] = {parts[0].data(), parts[1].data(), parts[2].data()};
    // Every path: each HSB pixel is the per-pixel conversion, each split the
    // pixel's channels or their conversion; hues out of the sectors, grey,
    // black and NaN included.
    std::vector<float> hues = a;
    const float odd[] = {-0.1f, 1.0f, 1.2f, kNaN, 0.0f, -0.0f};
    for (size_t k = 0; k < std::size(odd); ++k) hues[5 * k] = odd[k];
    const float* const hsbIn[3] = {hues.data(), b.data(), c.data()};
    for (VectorPath path : {VectorPath::Plain, VectorPath::Avx2, VectorPath::Avx512}) {
        SCOPED_TRACE(VectorPathName(path));
        CombineChannelRows(hsbIn, width, 0, height - 1, true, rgb.data(), path);
        for (size_t i = 0; i < n; ++i) {
            float pixel[3] = {hues[i], b[i], c[i]};
            HsbToRgb(hues[i], b[i], c[i], pixel);
            ASSERT_TRUE(std::memcmp(pixel, &rgb[3 * i], sizeof pixel) == 0) << i;
        }
        const float special[][3] = {{0.3f, 0.3f, 0.3f}, {0, 0, 0},    {kNaN, 0.5f, 0.2f},
                                    {0.5f, kNaN, 0.2f}, {1, 0, 0.5f}, {0, -0.0f, 0},
                                    {0.5f, -0.0f, 0.0f}};
        for (size_t k = 0; k < std::size(special); ++k)
            std::memcpy(&rgb[3 * (7 * k + 1)], special[k], sizeof special[k]);
        for (bool hsb : {false, true}) {
            SplitChannelRows(rgb.data(), width, 0, height - 1, hsb, out, path);
            for (size_t i = 0; i < n; ++i) {
                float want[3] = {rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]};
                if (hsb) RgbToHsb(rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2], want);
                for (int k = 0; k < 3; ++k)
                    ASSERT_EQ(std::memcmp(&want[k], &parts[k][i], 4), 0) << i << " hsb " << hsb;
            }
        }
    }
}

// Each sample through the framework's per-sample slope and normal.
std::vector<float> NormalsOneByOne(const NormalSetup& s) {
    const int32_t w = s.grid.width, h = s.grid.height;
    std::vector<float> rgb;
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            float gx, gy, n[3];
            Orogen::HeightSlope(s.heights, s.grid, x, y, gx, gy);
            Orogen::SlopeNormal(gx, gy, n);
            rgb.push_back(std::clamp(0.5f * s.flipX * n[0] + 0.5f, 0.0f, 1.0f));
            rgb.push_back(std::clamp(0.5f * s.flipY * n[1] + 0.5f, 0.0f, 1.0f));
            rgb.push_back(std::clamp(0.5f * n[2] + 0.5f, 0.0f, 1.0f));
        }
    return rgb;
}

TEST(ColourKernels, NormalsMatchTheSlopeOfEachSample) {
    const struct {
        int32_t width, height;
        double extent, vertical;
        float flipX, flipY;
    } cases[] = {{23, 17, 1.0, 1.0, -1, -1},
                 {23, 17, 0.1, 3.0, 1, -1},
                 {64, 3, 1.0, 1e6, -1, 1},
                 {5, 40, 4.0, 0.5, -1, 1},
                 {1, 9, 1.0, 1.0, 1, 1},
                 {9, 1, 0.05, 2.0, -1, -1},
                 {1, 1, 1.0, 1.0, -1, -1},
                 {2, 2, 1.0, 8.0, 1, 1},
                 // Squares of the slopes overflow; the slopes themselves do.
                 {23, 17, 1.0, 1e20, -1, -1},
                 {23, 17, 0.01, 3e38, 1, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " extent " << c.extent);
        const std::vector<float> heights =
            Random(static_cast<size_t>(c.width) * c.height, static_cast<uint32_t>(c.width));
        NormalSetup s{heights.data(), {}, c.flipX, c.flipY};
        s.grid.width = c.width;
        s.grid.height = c.height;
        s.grid.x1 = c.extent;
        s.grid.verticalScale = c.vertical;
        std::vector<float> rgb(3 * heights.size());
        for (VectorPath path : {VectorPath::Avx512, VectorPath::Avx2, VectorPath::Plain}) {
            NormalRows(s, 0, c.height - 1, rgb.data(), path);
            EXPECT_TRUE(SameBits(rgb, NormalsOneByOne(s))) << VectorPathName(path);
        }
        for (size_t i = 0; i < rgb.size(); ++i) {
            ASSERT_TRUE(rgb[i] >= (i % 3 == 2 ? 0.5f : 0.0f) && rgb[i] <= 1.0f) << i;
        }
    }
}

}  // namespace
}  // namespace basekit
