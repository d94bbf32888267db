// Height Chooser, Select Color, Splat Converter and Overlay View kernels:
// exact values where the arithmetic is exact, the seam that meets the plain
// maximum with matching slope, splat weights that sum to 1, grey inputs that
// equal grey bitmaps, and the light the view falls back on.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "devices/combiners/HeightCombiner.h"
#include "devices/converters/SplatMaker.h"
#include "devices/output/OverlayOutput.h"
#include "devices/selectors/SelectColor.h"
#include "framework/Terrain.h"

namespace basekit {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

std::vector<VectorPath> VectorPaths() {
    std::vector<VectorPath> paths;
    for (VectorPath p : {VectorPath::Avx2, VectorPath::Avx512})
        if (PathAvailable(p)) paths.push_back(p);
    return paths;
}

// Mostly 0..1, some beyond on either side, a few NaNs, and ties with `other`
// (when given) every 13th value.
std::vector<float> Values(size_t count, uint32_t seed, const std::vector<float>* other = nullptr) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-0.25f, 1.25f);
    std::vector<float> v(count);
    for (size_t i = 0; i < count; ++i)
        v[i] = i % 29 == 5 ? kNaN : other && i % 13 == 0 ? (*other)[i] : u(rng);
    return v;
}

std::pair<float, float> Choose(float a, float b, int32_t keep, float k) {
    float r = a, w = -1.0f;
    ChooseHeights(&r, &b, &w, 0, 1, keep, k);
    return {r, w};
}

TEST(HeightChooserKernel, HardChoicesSeamsAndClamps) {
    const struct {
        float a, b;
        int32_t keep;
        float k, r, w;
    } cases[] = {
        // Transition 0: the plain maximum and minimum; equal heights keep the primary.
        {0.25f, 0.5f, kKeepHigher, 0.0f, 0.5f, 1.0f},
        {0.5f, 0.25f, kKeepHigher, 0.0f, 0.5f, 0.0f},
        {0.3f, 0.3f, kKeepHigher, 0.0f, 0.3f, 0.0f},
        {0.25f, 0.5f, kKeepLower, 0.0f, 0.25f, 0.0f},
        {0.5f, 0.25f, kKeepLower, 0.0f, 0.25f, 1.0f},
        {0.3f, 0.3f, kKeepLower, 0.0f, 0.3f, 0.0f},
        // |a - b| = k: exactly the maximum (minimum), fully one side.
        {0.5f, 0.625f, kKeepHigher, 0.125f, 0.625f, 1.0f},
        {0.5f, 0.375f, kKeepHigher, 0.125f, 0.5f, 0.0f},
        {0.5f, 0.375f, kKeepLower, 0.125f, 0.375f, 1.0f},
        {0.5f, 0.625f, kKeepLower, 0.125f, 0.5f, 0.0f},
        // Equal heights: half of each, raised (lowered) by k / 4.
        {0.5f, 0.5f, kKeepHigher, 0.25f, 0.5625f, 0.5f},
        {0.5f, 0.5f, kKeepLower, 0.25f, 0.4375f, 0.5f},
        // Results are heights: out of range clamped, NaN to 1.
        {1.25f, 0.0f, kKeepHigher, 0.0f, 1.0f, 0.0f},
        {-0.5f, -0.25f, kKeepLower, 0.0f, 0.0f, 0.0f},
        {kNaN, 0.5f, kKeepHigher, 0.0f, 1.0f, 0.0f},
        {kNaN, 0.5f, kKeepHigher, 0.1f, 1.0f, 1.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << c.a << " " << c.b << " keep " << c.keep << " k " << c.k);
        const auto [r, w] = Choose(c.a, c.b, c.keep, c.k);
        EXPECT_EQ(r, c.r);
        EXPECT_EQ(w, c.w);
    }
}

TEST(HeightChooserKernel, AHardChoiceIsTheMaximumOrMinimumUpToOneRounding) {
    // a + (b - a)·1 rounds twice, so b comes back within an ulp; exact above
    // where the values are binary fractions.
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (int i = 0; i < 2000; ++i) {
        const float a = u(rng), b = u(rng);
        const auto [high, took] = Choose(a, b, kKeepHigher, 0.0f);
        const auto [low, tookLow] = Choose(a, b, kKeepLower, 0.0f);
        ASSERT_NEAR(high, std::max(a, b), 6e-8f) << a << " " << b;
        ASSERT_NEAR(low, std::min(a, b), 6e-8f) << a << " " << b;
        ASSERT_EQ(took, b > a ? 1.0f : 0.0f);
        ASSERT_EQ(tookLow, b < a ? 1.0f : 0.0f);
    }
}

TEST(HeightChooserKernel, TheSeamMeetsTheMaximumWithMatchingSlope) {
    // Just inside |b - a| = k the result exceeds max(a, b) by e²/(4k): no
    // kink, only a quadratic bend; Lower mirrors it below the minimum.
    const float k = 0.125f, a = 0.5f;
    for (float e : {1.0f / 256, 1.0f / 1024, 1.0f / 4096}) {
        const float bend = e * e / (4 * k);
        const float b = a + k - e;
        EXPECT_NEAR(Choose(a, b, kKeepHigher, k).first - b, bend, bend * 1e-2f + 1e-7f) << e;
        const float c = a - k + e;
        EXPECT_NEAR(c - Choose(a, c, kKeepLower, k).first, bend, bend * 1e-2f + 1e-7f) << e;
    }
    // Beyond the seam nothing bends.
    EXPECT_EQ(Choose(0.1f, 0.9f, kKeepHigher, 0.5f).first, 0.9f);
    EXPECT_EQ(Choose(0.1f, 0.9f, kKeepLower, 0.5f).first, 0.1f);
}

TEST(SelectColorKernel, ExactAtTheColourFadingToNothingBeyondTheFalloff) {
    const float black[3] = {0, 0, 0};
    const float orange[3] = {1.0f, 0.5f, 0.0f};
    const struct {
        const float* colour;
        float pixel[3];
        float tolerance, falloff, mask;
    } cases[] = {
        {orange, {1.0f, 0.5f, 0.0f}, 0.0f, 0.0f, 1.0f},    // the colour itself, no tolerance
        {black, {0.05f, 0.05f, 0.05f}, 0.1f, 0.1f, 1.0f},  // within the tolerance
        {black, {0.25f, 0.25f, 0.25f}, 0.1f, 0.1f, 0.0f},  // beyond tolerance + falloff
        {black, {0.15f, 0.15f, 0.15f}, 0.1f, 0.0f, 0.0f},  // no falloff: a hard edge
        {black, {1.0f, 1.0f, 1.0f}, 0.99f, 0.0f, 0.0f},    // black to white is 1
        {black, {1.0f, 1.0f, 1.0f}, 1.0f, 0.0f, 1.0f},
        {orange, {kNaN, 0.5f, 0.0f}, 1.0f, 1.0f, 0.0f},  // NaN selects nothing
    };
    for (const auto& c : cases) {
        float mask = -1.0f;
        SelectColourMask(c.pixel, 3, 0, 1, c.colour, c.tolerance, c.falloff, &mask);
        EXPECT_EQ(mask, c.mask) << c.pixel[0] << " tol " << c.tolerance << " falloff " << c.falloff;
    }
    // Halfway through the falloff: distance 0.15 from black, fading over 0.1.
    float half[3] = {0.15f, 0.15f, 0.15f}, mask;
    SelectColourMask(half, 3, 0, 1, black, 0.1f, 0.1f, &mask);
    EXPECT_NEAR(mask, 0.5f, 1e-5f);
}

TEST(SelectColorKernel, AHeightFieldIsReadAsAGreyImage) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(-0.1f, 1.1f);
    std::vector<float> heights(999), grey;
    for (float& h : heights) {
        h = u(rng);
        for (int c = 0; c < 3; ++c) grey.push_back(h);
    }
    const float colour[3] = {0.5f, 0.4f, 0.6f};
    std::vector<float> fromField(heights.size()), fromImage(heights.size());
    SelectColourMask(heights.data(), 1, 0, heights.size(), colour, 0.1f, 0.2f, fromField.data());
    SelectColourMask(grey.data(), 3, 0, heights.size(), colour, 0.1f, 0.2f, fromImage.data());
    EXPECT_TRUE(SameBits(fromField, fromImage));
    int between = 0;
    for (float m : fromField) between += m > 0.0f && m < 1.0f;
    EXPECT_GT(between, 0);
}

// A width x height field on the unit square: h(x, y) = f(x, y).
template <class F>
std::vector<float> Field(int32_t width, int32_t height, F f) {
    std::vector<float> v;
    for (int32_t y = 0; y < height; ++y)
        for (int32_t x = 0; x < width; ++x) v.push_back(f(x, y));
    return v;
}

Orogen::Grid UnitGrid(int32_t width, int32_t height, double vertical) {
    Orogen::Grid grid;
    grid.width = width;
    grid.height = height;
    grid.verticalScale = vertical;
    return grid;
}

std::vector<float> Splat(const std::vector<float>& h, const Orogen::Grid& grid, int32_t angle,
                         float level, float transition) {
    std::vector<float> rgb(h.size() * 3);
    SplatRows({h.data(), grid, angle, level, transition}, 0, grid.height - 1, rgb.data());
    return rgb;
}

TEST(SplatKernel, FlatLowFlatHighAndSteepGroundAreOneLayerEach) {
    const struct {
        float height;
        double vertical;  // the slope of h = height + x across the field, in world units
        int32_t angle;
        float red, green, blue;
    } cases[] = {
        {0.3f, 0.0, 35, 1, 0, 0},       // flat and low
        {0.9f, 0.0, 35, 0, 0, 1},       // flat and high
        {0.3f, 0.0, 0, 0.5f, 0.5f, 0},  // "Rock Angle" 0: flat ground mid-blend
        {0.0f, 20.0, 35, 0, 1, 0},      // a slope of 84 degrees is rock
        {0.0f, 0.25, 35, 1, 0, 0},      // 14 degrees is not
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.height << " vertical " << c.vertical);
        const int32_t w = 33, hgt = 5;
        const auto h = Field(w, hgt, [&](int32_t x, int32_t) {
            return c.vertical > 0 ? static_cast<float>(x) / (w - 1) : c.height;
        });
        const auto rgb =
            Splat(h, UnitGrid(w, hgt, c.vertical > 0 ? c.vertical : 1.0), c.angle, 0.7f, 0.05f);
        for (size_t i = 0; i < h.size(); ++i) {
            // On the slope the highest columns are high ground under the rock.
            if (c.vertical > 0 && c.green == 0 && h[i] > 0.65f) continue;
            ASSERT_EQ(rgb[3 * i], c.red) << i;
            ASSERT_EQ(rgb[3 * i + 1], c.green) << i;
            ASSERT_EQ(rgb[3 * i + 2], c.blue) << i;
        }
    }
}

TEST(SplatKernel, WeightsSumToOneEverywhere) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    const int32_t w = 65, hgt = 47;
    const auto h = Field(w, hgt, [&](int32_t x, int32_t y) {
        return 0.5f + 0.4f * std::sin(x * 0.21f) * std::cos(y * 0.17f) + 0.02f * u(rng);
    });
    for (const auto& [angle, level, transition] :
         {std::tuple{35, 0.7f, 0.05f}, std::tuple{10, 0.5f, 0.5f}, std::tuple{60, 0.2f, 0.0f}}) {
        const auto rgb = Splat(h, UnitGrid(w, hgt, 0.2), angle, level, transition);
        int blended = 0;
        for (size_t i = 0; i < h.size(); ++i) {
            const float r = rgb[3 * i], g = rgb[3 * i + 1], b = rgb[3 * i + 2];
            ASSERT_NEAR(r + g + b, 1.0f, 1e-6f) << i;
            ASSERT_TRUE(r >= 0 && g >= 0 && b >= 0) << i;
            blended += (g > 0 && g < 1) || (b > 0 && b < 1);
        }
        if (transition > 0) {
            EXPECT_GT(blended, 0) << angle;
        }
    }
}

TEST(OverlayKernel, TheLightFallsBackToTheUpperLeftWhenTheHostGivesNone) {
    const float third = 1.0f / std::sqrt(3.0f);
    const struct {
        float direction[3];
        float light[3];
    } cases[] = {
        {{0, 0, 0}, {-third, -third, third}},
        {{kNaN, 0, 1}, {-third, -third, third}},
        {{3, 0, 4}, {0.6f, 0.0f, 0.8f}},
        {{0, 0, 5}, {0, 0, 1}},
    };
    for (const auto& c : cases) {
        float light[3];
        OverlayLight(c.direction, light);
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(light[k], c.light[k], 1e-7f) << k;
    }
}

TEST(OverlayKernel, GreyOverlayOpacityAndShadingOnFlatGround) {
    const int32_t w = 4, hgt = 3;
    const auto h = Field(w, hgt, [](int32_t, int32_t) { return 0.4f; });
    std::vector<float> image;
    for (size_t i = 0; i < h.size(); ++i) image.insert(image.end(), {0.2f, 0.6f, 1.0f});
    const float third = 1.0f / std::sqrt(3.0f);
    const struct {
        bool overlay;
        float opacity, shading;
        float light[3];
        float expect[3];
    } cases[] = {
        {false, 1.0f, 0.0f, {0, 0, 1}, {0.4f, 0.4f, 0.4f}},  // no overlay: the terrain as grey
        {true, 1.0f, 0.0f, {0, 0, 1}, {0.2f, 0.6f, 1.0f}},   // the overlay alone
        {true, 0.0f, 0.0f, {0, 0, 1}, {0.4f, 0.4f, 0.4f}},   // opacity 0: the grey again
        {true,
         0.5f,
         0.0f,
         {0, 0, 1},
         {0.4f * 0.5f + 0.2f * 0.5f, 0.4f * 0.5f + 0.6f * 0.5f, 0.4f * 0.5f + 1.0f * 0.5f}},
        {true, 1.0f, 1.0f, {0, 0, 1}, {0.2f, 0.6f, 1.0f}},  // overhead light on flat ground
        {false, 1.0f, 1.0f, {-third, -third, third}, {0.4f * third, 0.4f * third, 0.4f * third}},
        {false, 1.0f, 1.0f, {1, 0, 0}, {0, 0, 0}},  // light along the ground
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.overlay << " " << c.opacity << " " << c.shading);
        OverlaySetup setup{h.data(),
                           UnitGrid(w, hgt, 1.0),
                           c.overlay ? image.data() : nullptr,
                           3,
                           {c.light[0], c.light[1], c.light[2]},
                           c.opacity,
                           c.shading};
        std::vector<float> rgb(h.size() * 3);
        OverlayRows(setup, 0, hgt - 1, rgb.data());
        for (size_t i = 0; i < h.size(); ++i)
            for (int k = 0; k < 3; ++k) ASSERT_FLOAT_EQ(rgb[3 * i + k], c.expect[k]) << i;
    }
    // A height-field overlay is grey: the same bits as a grey bitmap.
    std::vector<float> greyField(h.size(), 0.7f), greyImage(h.size() * 3, 0.7f);
    std::vector<float> fromField(h.size() * 3), fromImage(h.size() * 3);
    OverlaySetup setup{h.data(), UnitGrid(w, hgt, 1.0), greyField.data(), 1, {0, 0, 1}, 0.6f, 0.5f};
    OverlayRows(setup, 0, hgt - 1, fromField.data());
    setup.overlay = greyImage.data();
    setup.overlayChannels = 3;
    OverlayRows(setup, 0, hgt - 1, fromImage.data());
    EXPECT_TRUE(SameBits(fromField, fromImage));
}

TEST(OverlayKernel, SlopesTowardsTheLightAreBrighter) {
    // h rises along +x; the framework's normal (gx, gy, 1) leans towards +x,
    // so a light along +x brightens it and one along -x darkens it.
    const int32_t w = 17, hgt = 3;
    const auto h = Field(w, hgt, [&](int32_t x, int32_t) { return 0.5f * x / (w - 1); });
    auto viewAt = [&](float lx) {
        float light[3];
        const float direction[3] = {lx, 0.0f, 1.0f};
        OverlayLight(direction, light);
        OverlaySetup setup{h.data(), UnitGrid(w, hgt, 1.0),          nullptr,
                           1,        {light[0], light[1], light[2]}, 1.0f,
                           1.0f};
        std::vector<float> rgb(h.size() * 3);
        OverlayRows(setup, 0, hgt - 1, rgb.data());
        return rgb[3 * (w + 8)];
    };
    EXPECT_GT(viewAt(1.0f), viewAt(0.0f));
    EXPECT_LT(viewAt(-1.0f), viewAt(0.0f));
}

TEST(MasksViewsPaths, EveryPathGivesThePlainBits) {
    // Odd sizes leave a plain tail after the vector loop.
    const size_t n = 1003;
    const std::vector<float> a = Values(n, 1), b = Values(n, 2, &a);
    const std::vector<float> image = Values(3 * n, 3);
    for (VectorPath path : VectorPaths()) {
        SCOPED_TRACE(VectorPathName(path));
        for (int32_t keep : {kKeepHigher, kKeepLower})
            for (float k : {0.0f, 0.05f, 0.5f}) {
                std::vector<float> plain = a, wide = a, plainMask(n), wideMask(n);
                ChooseHeights(plain.data(), b.data(), plainMask.data(), 0, n, keep, k,
                              VectorPath::Plain);
                ChooseHeights(wide.data(), b.data(), wideMask.data(), 3, n, keep, k, path);
                std::copy(plain.begin(), plain.begin() + 3, wide.begin());
                std::copy(plainMask.begin(), plainMask.begin() + 3, wideMask.begin());
                EXPECT_TRUE(SameBits(plain, wide)) << keep << " " << k;
                EXPECT_TRUE(SameBits(plainMask, wideMask)) << keep << " " << k;
            }
        const float colour[3] = {0.5f, 0.25f, 0.75f};
        for (int32_t channels : {1, 3})
            for (float falloff : {0.0f, 0.3f}) {
                std::vector<float> plain(n), wide(n);
                SelectColourMask(image.data(), channels, 0, n, colour, 0.2f, falloff, plain.data(),
                                 VectorPath::Plain);
                SelectColourMask(image.data(), channels, 0, n, colour, 0.2f, falloff, wide.data(),
                                 path);
                EXPECT_TRUE(SameBits(plain, wide)) << channels << " " << falloff;
            }
    }
}

TEST(MasksViewsPaths, SplatsAndViewsAreThePlainBitsAndTheBoundsNeverChangeAWeight) {
    // Slopes from flat to cliffs, densest around the default rock band, on
    // a field of 37 columns: four vector groups and a plain tail a row.
    const int32_t w = 37, hgt = 41;
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    const auto h = Field(w, hgt, [&](int32_t x, int32_t y) {
        return 0.5f + 0.3f * std::sin(0.05f * x * y) * u(rng) + (y % 7 == 3 ? kNaN : 0.0f);
    });
    for (const auto& [angle, transition, vertical] :
         {std::tuple{35, 0.05f, 0.02}, std::tuple{35, 0.0f, 0.05}, std::tuple{0, 0.1f, 0.01},
          std::tuple{80, 0.3f, 1.0}, std::tuple{90, 0.0f, 5.0}, std::tuple{10, 0.5f, 0.01},
          std::tuple{45, 0.1f, 1e37}}) {
        SCOPED_TRACE(::testing::Message() << angle << " " << transition << " " << vertical);
        const Orogen::Grid grid = UnitGrid(w, hgt, vertical);
        std::vector<float> plain(h.size() * 3);
        SplatRows({h.data(), grid, angle, 0.6f, transition}, 0, hgt - 1, plain.data(),
                  VectorPath::Plain);
        for (VectorPath path : VectorPaths()) {
            std::vector<float> wide(h.size() * 3);
            SplatRows({h.data(), grid, angle, 0.6f, transition}, 0, hgt - 1, wide.data(), path);
            EXPECT_TRUE(SameBits(plain, wide)) << VectorPathName(path);
        }
        // The view over the same field, with each kind of overlay.
        const std::vector<float> image = Values(3 * h.size(), 4), grey = Values(h.size(), 5);
        for (int32_t channels : {0, 1, 3}) {
            OverlaySetup setup{h.data(),
                               grid,
                               channels == 3 ? image.data()
                               : channels    ? grey.data()
                                             : nullptr,
                               channels,
                               {0.6f, -0.48f, 0.64f},
                               0.7f,
                               0.8f};
            std::vector<float> viewPlain(h.size() * 3);
            OverlayRows(setup, 0, hgt - 1, viewPlain.data(), VectorPath::Plain);
            for (VectorPath path : VectorPaths()) {
                std::vector<float> wide(h.size() * 3);
                OverlayRows(setup, 0, hgt - 1, wide.data(), path);
                EXPECT_TRUE(SameBits(viewPlain, wide)) << VectorPathName(path) << " " << channels;
            }
        }
        // Green is the rock weight of every sample's slope, bounds or not.
        const float rock = static_cast<float>(angle) / 90.0f, half = transition / 2.0f;
        for (int32_t y = 0; y < hgt; ++y)
            for (int32_t x = 0; x < w; ++x) {
                float gx, gy;
                Orogen::HeightSlope(h.data(), grid, x, y, gx, gy);
                const float full =
                    SplatRock(std::sqrt(gx * gx + gy * gy), rock - half, rock + half);
                const float green = plain[3 * (static_cast<size_t>(y) * w + x) + 1];
                ASSERT_TRUE(green == full || (full != full && green == 1.0f)) << x << " " << y;
            }
    }
}

}  // namespace
}  // namespace basekit
