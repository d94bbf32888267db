// The snow pass and the coast's shaping on every vector path against the
// plain one, and the exact values of single samples.

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

// Values that reach every branch: plateaus (d = 0), bare cells, -0, and
// (odd) a few samples no terrain should hold.
std::vector<float> Field(int n, uint32_t seed, bool odd) {
    std::vector<float> v(static_cast<size_t>(n));
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (float& x : v) {
        const float r = u(rng);
        x = r < 0.2f ? 0.0f : r < 0.3f ? 0.25f : r < 0.33f ? -0.0f : u(rng) * 0.3f;
        if (odd && r > 0.99f) x = r > 0.995f ? std::numeric_limits<float>::quiet_NaN() : -0.1f;
    }
    return v;
}

TEST(SnowPass, EveryPathGivesThePlainBitsAndOnlyTheInterior) {
    const struct {
        int w, h;
        bool maps, odd;
        float taper, line;
    } cases[] = {{3, 3, false, false, 0.0f, 0.01f},  {4, 5, true, false, 0.5f, 0.2f},
                 {10, 4, false, true, 0.0f, 0.3f},   {17, 6, true, true, 0.25f, 0.01f},
                 {18, 7, false, false, 1.0f, 0.0f},  {50, 20, true, true, 0.75f, 0.2f},
                 {131, 13, false, false, 0.0f, 1.0f}};
    for (const auto& c : cases) {
        const int n = c.w * c.h;
        const std::vector<float> terrain = Field(n, c.w, c.odd), snow = Field(n, c.h, c.odd);
        const std::vector<float> fall = Field(n, 5, false), melt = Field(n, 9, c.odd);
        SnowPass pass{terrain.data(),
                      snow.data(),
                      nullptr,
                      c.w,
                      c.h,
                      {c.maps ? fall.data() : nullptr, 0.01f},
                      {c.maps ? melt.data() : nullptr, 0.004f},
                      c.taper,
                      c.line};
        std::vector<float> plain(snow.size(), -7.0f);
        pass.next = plain.data();
        SnowPassRows(pass, 0, c.h - 1, VectorPath::Plain);
        for (int i = 0; i < n; ++i) {
            const int x = i % c.w, y = i / c.w;
            if (x == 0 || y == 0 || x == c.w - 1 || y == c.h - 1) {
                ASSERT_EQ(plain[i], -7.0f) << i;
            }
        }
        for (VectorPath path : AvailablePaths()) {
            std::vector<float> got(snow.size(), -7.0f);
            pass.next = got.data();
            // In two row ranges, as pieces of a pass run.
            SnowPassRows(pass, 1, c.h / 2, path);
            SnowPassRows(pass, c.h / 2 + 1, c.h - 2, path);
            EXPECT_TRUE(SameBits(got, plain)) << c.w << "x" << c.h << " " << VectorPathName(path);
        }
    }
}

TEST(CoastRow, EveryPathGivesThePlainBits) {
    // Rows across the 256-sample blocks; samples on the line and exactly on
    // the band's edges, -0, NaN, hardness 0.
    const float W = 0.25f, b = 0.125f;
    const float special[] = {W, W + b, W - b, -0.0f, std::numeric_limits<float>::quiet_NaN()};
    for (int n : {1, 15, 16, 17, 40, 256, 300, 700}) {
        std::vector<float> heights = Field(n, n, true), hardness = Field(n, n + 1, false);
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

// The centre of a 5x5 field on flat ground 0.1 under even snow 0.05, but for
// one other cell: its next value shows what each neighbour gives or takes,
// what melts and what falls.
TEST(SnowPass, OneCellTakesGivesMeltsAndGains) {
    const float k = kSnowDiagonal;
    EXPECT_EQ(k, static_cast<float>(1.0 / std::sqrt(2.0)));
    const struct {
        int other;           // index of the other cell; -1 none
        float snow, ground;  // there
        float line, evaporation, fall, taper;
        float want;
    } cases[] = {
        {7, 0.4f, 0.1f, 0, 0, 0, 0, 0.05f + 0.35f * 0.125f},       // north gives d
        {6, 0.4f, 0.1f, 0, 0, 0, 0, 0.05f + 0.35f * k * 0.125f},   // a diagonal d / sqrt 2
        {13, 0.1f, 0.6f, 0, 0, 0, 0, 0.05f + 0.1f * 0.125f},       // at most its own snow
        {17, 0.0f, -0.2f, 0, 0, 0, 0, 0.05f - 0.05f * 0.125f},     // takes at most ours
        {18, 0.0f, 0.1f, 0, 0, 0, 0, 0.05f - 0.05f * k * 0.125f},  // a diagonal takes d / sqrt 2
        {-1, 0, 0, 0.1f, 0, 0.01f, 0, 0.05f + 0.01f},              // line at the ground: no melt
        {-1, 0, 0, 0.5f, 0, 0, 0, 0.05f - 0.4f * 0.025f},          // melt below the line
        {-1, 0, 0, 1.0f, 0.03f, 0.02f, 0, 0.02f},                  // melts it all, then falls
        {-1, 0, 0, 0, 0.01f, 0.02f, 1.0f, 0.04f},                  // full taper: no fall
        {-1, 0, 0, 0, 0, 0.02f, 0.25f, 0.05f + 0.015f},
    };
    for (const auto& c : cases) {
        std::vector<float> terrain(25, 0.1f), snow(25, 0.05f), next(25, 0.0f);
        if (c.other >= 0) {
            snow[c.other] = c.snow;
            terrain[c.other] = c.ground;
        }
        for (VectorPath path : AvailablePaths()) {
            SnowPass pass{
                terrain.data(),           snow.data(), next.data(), 5, 5, {nullptr, c.fall},
                {nullptr, c.evaporation}, c.taper,     c.line};
            SnowPassRows(pass, 1, 3, path);
            EXPECT_FLOAT_EQ(next[12], c.want) << &c - cases << " " << VectorPathName(path);
        }
    }
}

TEST(SnowScale, DefaultsRunAmountOver64UnitsOfPassesAndALogMask) {
    // The other densities are checked in networks; these are the sizes timed.
    for (int32_t side : {1025, 4097}) {
        Orogen::Grid grid;
        grid.width = grid.height = side;
        EXPECT_EQ(ScaleSnow(grid, 0.5f, 1.0f, 15).passes, 15 * side / 64);
        // A world unit of more samples than the passes can follow.
        grid.x1 = 1e-30;
        EXPECT_EQ(ScaleSnow(grid, 0.5f, 1.0f, 15).passes, kMaxSnowPasses);
        EXPECT_EQ(ScaleSnow(grid, 0.5f, 1.0f, 0).passes, 0);
    }
    // The log mask saturates where log10(c s + 1) reaches a quarter of log10(c + 1).
    std::vector<float> depth = {0.0f, -1.0f, 1.0f, (std::pow(31.0f, 0.25f) - 1.0f) / 30.0f, 0.01f};
    LogDepthMask(depth.data(), depth.size(), 30.0f);
    const float want[] = {0.0f, 0.0f, 1.0f, 1.0f, 4.0f * std::log10(1.3f) / std::log10(31.0f)};
    for (size_t i = 0; i < depth.size(); ++i) EXPECT_NEAR(depth[i], want[i], 1e-6f) << i;
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
        float height, water, beach;  // wanted
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
        // Under water: W - |d|^3 / b^2, meeting the line with slope 0.
        {W - 0.03f, kCoastSmooth, 0.5f, 1.0f, W - 0.0048f, 0.0048f / 0.0175f, 1 - 0.16f},
        {W - 0.001f, kCoastSmooth, 0.5f, 1.0f, W - 1e-9f / b / b, 1e-9f / b / b / 0.0175f,
         1 - 1e-6f / b / b},
        {W - b, kCoastSmooth, 0.5f, 1.0f, W - b, 1.0f, 0.0f},
        {W - 0.2f, kCoastCliffs, 0.5f, 1.0f, W - 0.2f, 1.0f, 0.0f},
        {W - 0.0175f, kCoastSmooth, 0.5f, 0.0f, W - 0.0175f, 1.0f, 0.0f},  // hardness 0: no shelf
        {W - 0.007f, kCoastSmooth, 0.5f, 0.0f, W - 0.007f, 0.4f, 0.0f},
        {W + 0.01f, kCoastSmooth, 0.5f, 0.0f, W + 0.01f, 0.0f, 0.0f},  // nor beach
        {W + 0.05f, kCoastCliffs, 0.0f, 0.5f, W + 0.05f, 0.0f, 0.0f},  // past a half beach
    };
    for (const auto& c : cases) {
        const CoastSetup setup = MakeCoastSetup(W, b, c.zone, c.power);
        float h = c.h, water = -1.0f, beach = -1.0f;
        ErodeCoastRow(setup, &h, &c.hardness, &water, &beach, 1);
        EXPECT_NEAR(h, c.height, 2e-7f) << &c - cases;
        EXPECT_NEAR(water, c.water, 2e-5f) << &c - cases;
        EXPECT_NEAR(beach, c.beach, 2e-5f) << &c - cases;
    }
    // Exactly: the line keeps its bits and empty masks; power 0 is the identity.
    float h = W, w = 1, s = 1;
    ErodeCoastRow(MakeCoastSetup(W, b, kCoastSmooth, 0.5f), &h, nullptr, &w, &s, 1);
    EXPECT_TRUE(h == W && w == 0.0f && s == 0.0f);
    EXPECT_EQ(MakeCoastSetup(W, b, kCoastSmooth, 0.0f).exponent, 1.0f);
    for (float u : {0.0f, 0.1f, 0.37f, 0.5f, 0.8f, 1.0f}) EXPECT_EQ(CoastGain(u, 1.0f), u);
}

}  // namespace
}  // namespace basekit
