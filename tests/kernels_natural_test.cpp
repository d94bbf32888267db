// The snow pass on every vector path against the plain one, the snow's
// exact steps on small fields, and the coast's shaping of single samples.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "ReferenceKernels.h"
#include "devices/natural/CoastalErosion.h"
#include "devices/natural/SnowLevel.h"

namespace basekit {
namespace {

using reference::AvailablePaths;

bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// Values that reach every branch: plateaus (d = 0), bare cells, -0, and a
// few samples no terrain should hold.
std::vector<float> Field(int w, int h, uint32_t seed, bool odd) {
    std::vector<float> v(static_cast<size_t>(w) * h);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (float& x : v) {
        const float r = u(rng);
        x = r < 0.2f ? 0.0f : r < 0.3f ? 0.25f : r < 0.33f ? -0.0f : u(rng) * 0.3f;
        if (odd && r > 0.995f) x = r > 0.998f ? std::numeric_limits<float>::quiet_NaN() : -0.1f;
    }
    return v;
}

TEST(SnowPass, EveryPathGivesThePlainBits) {
    const struct {
        int w, h;
        bool maps, odd;
        float taper, line;
    } cases[] = {{3, 3, false, false, 0.0f, 0.01f}, {4, 5, true, false, 0.5f, 0.2f},
                 {10, 4, false, true, 0.0f, 0.3f},  {17, 6, true, true, 0.25f, 0.01f},
                 {18, 7, false, false, 1.0f, 0.0f}, {33, 9, true, false, 0.0f, 0.15f},
                 {50, 20, true, true, 0.75f, 0.2f}, {131, 13, false, false, 0.0f, 1.0f}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
        const std::vector<float> terrain = Field(c.w, c.h, c.w * 7 + c.h, c.odd);
        const std::vector<float> snow = Field(c.w, c.h, c.w + 100 * c.h, c.odd);
        const std::vector<float> fall = Field(c.w, c.h, 5 + c.w, false);
        const std::vector<float> melt = Field(c.w, c.h, 9 + c.h, c.odd);
        SnowPass pass;
        pass.terrain = terrain.data();
        pass.snow = snow.data();
        pass.width = c.w;
        pass.height = c.h;
        pass.fall = {c.maps ? fall.data() : nullptr, 0.01f};
        pass.evaporation = {c.maps ? melt.data() : nullptr, 0.004f};
        pass.taper = c.taper;
        pass.snowLine = c.line;
        std::vector<float> plain(snow.size(), -7.0f);
        pass.next = plain.data();
        SnowPassRows(pass, 0, c.h - 1, VectorPath::Plain);
        // Only the interior is written.
        for (int y = 0; y < c.h; ++y)
            for (int x = 0; x < c.w; ++x)
                if (x == 0 || y == 0 || x == c.w - 1 || y == c.h - 1) {
                    ASSERT_EQ(plain[y * c.w + x], -7.0f);
                }
        for (VectorPath path : AvailablePaths()) {
            std::vector<float> got(snow.size(), -7.0f);
            pass.next = got.data();
            // In two row ranges, as pieces of a pass run.
            SnowPassRows(pass, 1, c.h / 2, path);
            SnowPassRows(pass, c.h / 2 + 1, c.h - 2, path);
            EXPECT_TRUE(SameBits(got, plain)) << VectorPathName(path);
        }
    }
}

TEST(CoastRow, EveryPathGivesThePlainBits) {
    // Rows across the 256-sample blocks; samples on the line and exactly on
    // the band's edges, -0, NaN, hardness 0.
    const float W = 0.25f, b = 0.125f;
    const float special[] = {W, W + b, W - b, -0.0f, std::numeric_limits<float>::quiet_NaN()};
    for (int n : {1, 15, 16, 17, 40, 256, 300, 700}) {
        std::vector<float> heights = Field(n, 1, n, true), hardness = Field(n, 1, n + 1, false);
        for (float& h : heights) h = h * 3.0f;  // reach above the beach too
        for (int i = 0; i < n; i += 3) heights[i] = special[(i / 3) % 5];
        for (int32_t zone : {kCoastSmooth, kCoastCliffs}) {
            for (const float* hard : std::vector<const float*>{nullptr, hardness.data()}) {
                const CoastSetup setup = MakeCoastSetup(W, b, zone, 0.7f);
                std::vector<float> want = heights, wantWater(n, -1.0f), wantBeach(n, -1.0f);
                ErodeCoastRow(setup, want.data(), hard, wantWater.data(), wantBeach.data(), n,
                              VectorPath::Plain);
                for (VectorPath path : AvailablePaths()) {
                    std::vector<float> got = heights, water(n, -1.0f), beach(n, -1.0f);
                    ErodeCoastRow(setup, got.data(), hard, water.data(), beach.data(), n, path);
                    EXPECT_TRUE(SameBits(got, want) && SameBits(water, wantWater) &&
                                SameBits(beach, wantBeach))
                        << n << " zone " << zone << " " << VectorPathName(path);
                }
            }
        }
    }
}

// One cell of a 5x5 field holds snow; the centre's next value tells how much
// it takes or gives, neighbour by neighbour.
TEST(SnowPass, NeighboursGiveAndTakeAtMostTheirSnow) {
    const float k = kSnowDiagonal;
    EXPECT_EQ(k, static_cast<float>(1.0 / std::sqrt(2.0)));
    const struct {
        int x, y;          // the other cell (centre is 2, 2)
        float other, own;  // snow there and in the centre
        float ground;      // terrain under the other cell
        float want;
    } cases[] = {
        {2, 1, 0.4f, 0.0f, 0.0f, 0.4f * 0.125f},           // north gives all it has
        {1, 1, 0.4f, 0.0f, 0.0f, 0.4f * k * 0.125f},       // a diagonal gives d / sqrt 2
        {3, 2, 0.1f, 0.0f, 0.5f, 0.1f * 0.125f},           // a high, thin one gives its snow
        {2, 3, 0.0f, 0.3f, -0.2f, 0.3f + -0.3f * 0.125f},  // a deep hole takes the centre's
        {3, 3, 0.0f, 0.3f, 0.1f, 0.3f + -(0.3f - 0.1f) * k * 0.125f},
    };
    for (const auto& c : cases) {
        std::vector<float> terrain(25, 0.0f), snow(25, 0.0f), next(25, 0.0f);
        snow[c.y * 5 + c.x] = c.other;
        snow[12] = c.own;
        terrain[c.y * 5 + c.x] = c.ground;
        // Make every other neighbour level with the centre.
        for (int i : {6, 7, 8, 11, 13, 16, 17, 18})
            if (i != c.y * 5 + c.x) terrain[i] = c.own;
        for (VectorPath path : AvailablePaths()) {
            SnowPass pass{terrain.data(), snow.data(), next.data(), 5, 5, {}, {}, 0.0f, 0.0f};
            SnowPassRows(pass, 1, 3, path);
            EXPECT_FLOAT_EQ(next[12], c.want) << c.x << "," << c.y << " " << VectorPathName(path);
        }
    }
}

TEST(SnowPass, MeltsBelowTheLineAndNeverGoesNegative) {
    // Flat ground at 0.1 under even snow 0.05: only melt and fall act.
    const struct {
        float line, evaporation, fall, taper, want;
    } cases[] = {
        {0.0f, 0.0f, 0.01f, 0.0f, 0.05f + 0.01f},  // no line, no melt
        {0.1f, 0.0f, 0.01f, 0.0f, 0.05f + 0.01f},  // line at the ground: none
        {0.5f, 0.0f, 0.0f, 0.0f, 0.05f - (0.5f - 0.1f) * 0.025f},
        {1.0f, 0.03f, 0.02f, 0.0f, 0.0f + 0.02f},   // melts it all, then falls
        {0.0f, 0.01f, 0.02f, 1.0f, 0.05f - 0.01f},  // full taper: no fall
        {0.0f, 0.0f, 0.02f, 0.25f, 0.05f + 0.02f * 0.75f},
    };
    for (const auto& c : cases) {
        std::vector<float> terrain(9, 0.1f), snow(9, 0.05f), next(9, 0.0f);
        SnowPass pass{terrain.data(),           snow.data(), next.data(), 3, 3, {nullptr, c.fall},
                      {nullptr, c.evaporation}, c.taper,     c.line};
        SnowPassRows(pass, 1, 1, VectorPath::Plain);
        EXPECT_FLOAT_EQ(next[4], c.want) << c.line << " " << c.evaporation << " " << c.taper;
    }
}

TEST(SnowScale, FollowsTheDensity) {
    const struct {
        int32_t width;
        double x0, x1;
        int32_t amount;
        int32_t passes;
        float fall;
    } cases[] = {{1025, 0.0, 1.0, 15, 240, 0.5f * 0.64f / 1025.0f},
                 {4097, 0.0, 1.0, 15, 960, 0.5f * 0.64f / 4097.0f},
                 {513, -1.0, 1.0, 100, 400, 0.5f * 0.64f / 256.5f},
                 {65, 0.0, 1.0, 0, 0, 0.5f * 0.64f / 65.0f},
                 {65, 2.0, 2.0, 50, 0, std::numeric_limits<float>::infinity()}};
    for (const auto& c : cases) {
        Orogen::Grid grid;
        grid.width = grid.height = c.width;
        grid.x0 = c.x0;
        grid.x1 = c.x1;
        const SnowScale s = ScaleSnow(grid, 0.5f, 0.25f, c.amount);
        EXPECT_EQ(s.passes, c.passes) << c.width;
        EXPECT_FLOAT_EQ(s.fall, c.fall) << c.width;
        EXPECT_EQ(s.evaporation, s.fall * 0.25f);
    }
    // The log mask saturates where log10(c s + 1) reaches a quarter of log10(c + 1).
    std::vector<float> depth = {0.0f, -1.0f, 1.0f, (std::pow(31.0f, 0.25f) - 1.0f) / 30.0f, 0.01f};
    LogDepthMask(depth.data(), depth.size(), 30.0f);
    EXPECT_EQ(depth[0], 0.0f);
    EXPECT_EQ(depth[1], 0.0f);
    EXPECT_EQ(depth[2], 1.0f);
    EXPECT_NEAR(depth[3], 1.0f, 1e-6f);
    EXPECT_NEAR(depth[4], 4.0f * std::log10(1.3f) / std::log10(31.0f), 1e-6f);
}

TEST(CoastRow, ShapesEachZoneAsItsCurveSays) {
    const float W = 0.1004f, b = 0.075f;
    const float e95 = static_cast<float>(std::log(0.05) / std::log(0.5));
    auto gain = [](float u, float e) {
        return u < 0.5f ? 0.5f * std::pow(2 * u, e) : 1 - 0.5f * std::pow(2 - 2 * u, e);
    };
    const struct {
        float h;
        int32_t zone;
        float power, hardness;
        float height, water, beach;  // wanted; NaN height: unchanged
    } cases[] = {
        {W, kCoastSmooth, 0.5f, 1.0f, W, 0.0f, 0.0f},  // at the line
        {W + b + 1e-4f, kCoastSmooth, 0.5f, 1.0f, W + b + 1e-4f, 0.0f, 0.0f},
        {W + 0.03f, kCoastSmooth, 0.0f, 1.0f, W + 0.03f * 0.4f, 0.0f, 0.6f},  // identity curve
        {W + 0.03f, kCoastCliffs, 0.0f, 1.0f, W + 0.03f * 0.4f, 0.0f, 0.6f},  // straight ramp
        {W + 0.03f, kCoastCliffs, 1.0f, 1.0f, W + 0.03f * 0.064f, 0.0f, 1 - 0.064f},  // u^3
        {W + 0.06f, kCoastSmooth, 1.0f, 1.0f, W + 0.06f * gain(0.8f, e95), 0.0f,
         1 - gain(0.8f, e95)},
        {W + 0.01f, kCoastSmooth, 1.0f, 1.0f, W + 0.01f * gain(0.01f / b, e95), 0.0f,
         1 - gain(0.01f / b, e95)},
        // Under water: W - |d|^3 / b^2, shore 1 - (d / b)^2.
        {W - 0.03f, kCoastSmooth, 0.5f, 1.0f, W - 0.0048f, 0.0048f / 0.0175f, 1 - 0.16f},
        {W - b, kCoastSmooth, 0.5f, 1.0f, W - b, 1.0f, 0.0f},
        {W - 0.2f, kCoastCliffs, 0.5f, 1.0f, W - 0.2f, 1.0f, 0.0f},
        {W - 0.0175f, kCoastSmooth, 0.5f, 0.0f, W - 0.0175f, 1.0f, 0.0f},  // hardness 0: no shelf
        {W - 0.007f, kCoastSmooth, 0.5f, 0.0f, W - 0.007f, 0.4f, 0.0f},
        {W + 0.01f, kCoastSmooth, 0.5f, 0.0f, W + 0.01f, 0.0f, 0.0f},  // nor beach
        {W + 0.05f, kCoastCliffs, 0.0f, 0.5f, W + 0.05f, 0.0f, 0.0f},  // past a half beach
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("h " + std::to_string(c.h) + " zone " + std::to_string(c.zone));
        const CoastSetup setup = MakeCoastSetup(W, b, c.zone, c.power);
        float h = c.h, water = -1.0f, beach = -1.0f;
        ErodeCoastRow(setup, &h, &c.hardness, &water, &beach, 1);
        EXPECT_NEAR(h, c.height, 2e-7f);
        EXPECT_NEAR(water, c.water, 2e-5f);
        EXPECT_NEAR(beach, c.beach, 2e-5f);
    }
    // The exact cases: untouched samples keep their bits, power 0 is the identity.
    EXPECT_EQ(MakeCoastSetup(W, b, kCoastSmooth, 0.0f).exponent, 1.0f);
    for (float u : {0.0f, 0.1f, 0.37f, 0.5f, 0.8f, 1.0f}) EXPECT_EQ(CoastGain(u, 1.0f), u);
    float h = W;
    float w = 1, s = 1;
    ErodeCoastRow(MakeCoastSetup(W, b, kCoastSmooth, 0.5f), &h, nullptr, &w, &s, 1);
    EXPECT_EQ(h, W);
    EXPECT_EQ(w, 0.0f);
    EXPECT_EQ(s, 0.0f);
}

TEST(CoastRow, TheShelfMeetsTheWaterLineSmoothly) {
    // Heights from b below the line to b above: the new height never falls as
    // the old one rises, and its steps shrink to nothing at the line.
    const float W = 0.3004f, b = 0.1f;
    const int n = 2001;
    std::vector<float> h(n), water(n), beach(n);
    for (int i = 0; i < n; ++i) h[i] = W - b + 2 * b * i / (n - 1);
    std::vector<float> before = h;
    ErodeCoastRow(MakeCoastSetup(W, b, kCoastSmooth, 0.5f), h.data(), nullptr, water.data(),
                  beach.data(), n);
    for (int i = 1; i < n; ++i) EXPECT_GE(h[i], h[i - 1]) << i;
    const int line = (n - 1) / 2;
    // Slope of the shelf at the line: 3 (d / b)^2, near zero.
    EXPECT_LT(std::fabs(h[line - 1] - W), 1e-5f);
    EXPECT_LT(h[line - 1] - h[line - 2], (before[line - 1] - before[line - 2]) * 0.01f);
    EXPECT_NEAR(beach[0], 0.0f, 1e-6f);
    EXPECT_NEAR(beach[line - 1], 1.0f, 1e-5f);
}

}  // namespace
}  // namespace basekit
