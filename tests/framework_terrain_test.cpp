#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "framework/Terrain.h"

namespace {

using namespace Orogen;

TEST(Terrain, WorldPositionsSpanTheExtent) {
    BuildContext context = MakeBuildContext(Grid{5, 3, -2.0, 10.0, 2.0, 11.0}, nullptr, nullptr);
    EXPECT_EQ(WorldX(context, 0), -2.0);
    EXPECT_EQ(WorldX(context, 4), 2.0);
    EXPECT_EQ(WorldX(context, 1), -1.0);
    EXPECT_EQ(WorldY(context, 2), 11.0);
    EXPECT_EQ(WorldY(context, 1), 10.5);
    // A side of one sample sits at the extent's start.
    BuildContext single = MakeBuildContext(Grid{1, 1}, nullptr, nullptr);
    EXPECT_EQ(single.sx, 0.0);
    EXPECT_EQ(WorldX(single, 0), 0.0);
}

TEST(Terrain, ScaleIndependenceIsRelativeTo256SamplesPerUnit) {
    const struct {
        int32_t width;
        double extent;
        int32_t radius, expected;
    } cases[] = {
        {256, 1.0, 10, 10}, {512, 1.0, 10, 20}, {128, 1.0, 10, 5},
        {100, 1.0, 10, 3},  {256, 0.0, 10, 0},  {256, -1.0, 10, 0},
        // Past int32 the radius stops at its end instead of an undefined cast.
        {65536, 1.0, 2147483647, 2147483647}, {65536, 1e-30, 1, 2147483647},
    };
    for (const auto& c : cases) {
        Grid grid{c.width, c.width};
        grid.x1 = grid.x0 + c.extent;
        EXPECT_EQ(ScaleIndependent(c.radius, grid), c.expected) << c.width << " " << c.extent;
    }
}

TEST(Terrain, APlaneHasOneSlope) {
    const Grid grid{6, 4, 0.0, 0.0, 2.0, 1.0, 2.0};  // 3 samples per world unit, vertical 2
    std::vector<float> heights(24);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 6; ++x) heights[y * 6 + x] = 0.25f * x + 0.125f * y;
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 6; ++x) {
            float gx, gy;
            HeightSlope(heights.data(), grid, x, y, gx, gy);
            EXPECT_FLOAT_EQ(gx, 0.25f * 3.0f * 2.0f) << x << "," << y;
            EXPECT_FLOAT_EQ(gy, 0.125f * 3.0f * 2.0f) << x << "," << y;
        }
    float normal[3];
    SlopeNormal(0.0f, 0.0f, normal);
    EXPECT_EQ(normal[2], 1.0f);
}

// A vertical scale past a float (1e300 is a finite world) gives finite slopes
// for heights in 0..1, flat windows 0, and so finite normals.
TEST(Terrain, HugeVerticalScalesGiveFiniteSlopes) {
    for (double vertical : {1e300, 1e38, 3.4e38}) {
        const Grid grid{4, 3, 0.0, 0.0, 1e-3, 1.0, vertical};
        const std::vector<float> heights = {0, 0, 1, 1, 0, 1, 0, 1, 1, 1, 1, 1};
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x) {
                float gx, gy, normal[3];
                HeightSlope(heights.data(), grid, x, y, gx, gy);
                ASSERT_TRUE(std::isfinite(gx) && std::isfinite(gy)) << x << "," << y;
                SlopeNormal(gx, gy, normal);
                for (float n : normal) ASSERT_TRUE(std::isfinite(n)) << x << "," << y;
            }
        float gx, gy;
        HeightSlope(heights.data(), grid, 0, 2, gx, gy);  // a flat window
        EXPECT_EQ(gx, 0.0f);
    }
}

TEST(Terrain, BilinearSampleHitsSamplesAndClampsOutside) {
    const float field[] = {0.0f, 1.0f, 2.0f, 3.0f};  // 2x2
    float v;
    BilinearSample(field, 2, 2, 1, 1.0f, 1.0f, &v);
    EXPECT_EQ(v, 3.0f);
    BilinearSample(field, 2, 2, 1, 0.5f, 0.5f, &v);
    EXPECT_EQ(v, 1.5f);
    BilinearSample(field, 2, 2, 1, 5.0f, 0.0f, &v);
    EXPECT_EQ(v, 1.0f);
    // Truncation toward zero: -0.5 takes column 0 with weight -0.5 on it.
    BilinearSample(field, 2, 2, 1, -0.5f, 0.0f, &v);
    EXPECT_EQ(v, 0.0f * 1.5f + 1.0f * -0.5f);
    const float rgb[] = {0, 0, 0, 1, 2, 3};  // 2x1 bitmap
    float colour[3];
    BilinearSample(rgb, 2, 1, 3, 0.5f, 0.0f, colour);
    EXPECT_EQ(colour[0], 0.5f);
    EXPECT_EQ(colour[2], 1.5f);
    // One axis: neighbours clamped on their own, the fraction kept unclamped.
    const struct {
        float f;
        int32_t size, i0, i1;
        float t;
    } axes[] = {{2.25f, 4, 2, 3, 0.25f},
                {3.5f, 4, 3, 3, 0.5f},
                {-0.5f, 4, 0, 1, -0.5f},
                {-1.75f, 4, 0, 0, -0.75f},
                {9.0f, 4, 3, 3, 0.0f}};
    for (const auto& a : axes) {
        const BilinearTap tap = BilinearAxis(a.f, a.size);
        EXPECT_EQ(tap.i0, a.i0) << a.f;
        EXPECT_EQ(tap.i1, a.i1) << a.f;
        EXPECT_EQ(tap.t, a.t) << a.f;
        EXPECT_EQ(tap.oneMinusT, 1.0f - a.t) << a.f;
    }
    EXPECT_EQ(BilinearMix(2.0f, 6.0f, BilinearAxis(0.25f, 2)), 3.0f);
}

}  // namespace
