// Gradient and radial kernels against the ramp and shape formulas written out
// here, plus the two devices' saved state and builds on the reference host.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <numbers>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "TestDevices.h"
#include "TestHost.h"
#include "devices/generators/CircularGrad.h"
#include "devices/generators/GradGen.h"

namespace basekit {
namespace {

// World position of sample k of n spread over lo..hi.
double Spread(double lo, double hi, int k, int n) {
    return n > 1 ? lo + (hi - lo) * k / (n - 1) : lo;
}

// Triangle wave of period 2 written with floor rather than fmod.
double Zigzag(double t) {
    double s = t - 2.0 * std::floor(t / 2.0);
    return s > 1.0 ? 2.0 - s : s;
}
double Saw(double t) { return t - std::floor(t); }
double Clamp01(double t) { return t < 0.0 ? 0.0 : (t > 1.0 ? 1.0 : t); }

std::vector<float> RunGradient(const GradientSetup& s) {
    std::vector<float> out(static_cast<size_t>(s.width) * s.height, -7.0f);
    FillGradient(s, out.data());
    return out;
}

// The ramp rises 1 per `width` world units along the direction, 0.5 on the
// line through the anchor, then is clamped, zigzagged or sawn.
TEST(Gradient, MatchesTheRampFormula) {
    const struct {
        int32_t direction;
        float width;
        int32_t tiling;
        double px, py;
    } cases[] = {
        {0, 1.0f, kTileNone, 0.5, 0.5},          {0, 1.0f, kTileNone, 0.25, 0.8},
        {90, 2.0f, kTileNone, 0.5, 0.5},         {180, 0.5f, kTileNone, 0.0, 0.0},
        {45, 1.0f, kTileNone, 0.5, 0.5},         {360, 1.0f, kTileNone, 0.5, 0.5},
        {0, 1.0f, kTileLinear, 0.5, 0.5},        {90, 0.75f, kTileLinear, 0.3, 0.6},
        {0, 1.0f, kTileDiscontinuous, 0.5, 0.5}, {180, 1.5f, kTileDiscontinuous, 1.0, 0.0},
        {0, 1.0f, 7, 0.5, 0.5},  // an unknown tiling leaves the ramp
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.direction << " degrees, width " << c.width
                                          << ", tiling " << c.tiling);
        const GradientSetup s{41, 23,   -3.0,        4.0,     -2.0,    3.5,
                              c.px, c.py, c.direction, c.width, c.tiling};
        const std::vector<float> out = RunGradient(s);
        const double a = c.direction * std::numbers::pi / 180.0;
        for (int j = 0; j < s.height; ++j)
            for (int i = 0; i < s.width; ++i) {
                const double dx = Spread(s.left, s.right, i, s.width) - c.px,
                             dy = Spread(s.top, s.bottom, j, s.height) - c.py;
                const double t = (dx * std::cos(a) + dy * std::sin(a)) / c.width + 0.5;
                const double want = c.tiling == kTileNone            ? Clamp01(t)
                                    : c.tiling == kTileLinear        ? Zigzag(t)
                                    : c.tiling == kTileDiscontinuous ? Saw(t)
                                                                     : t;
                // Near a saw tooth's jump the two sides are both right.
                if (c.tiling == kTileDiscontinuous && (want < 1e-5 || want > 1.0 - 1e-5)) continue;
                ASSERT_NEAR(out[static_cast<size_t>(j) * s.width + i], want, 2e-6) << i << "," << j;
            }
    }
}

// Width 0 climbs one unit per sample of the shorter side: k = min(8, 4).
TEST(Gradient, ZeroWidthClimbsOneUnitPerSampleOfTheShorterSide) {
    for (int32_t tiling : {kTileNone, kTileDiscontinuous}) {
        const std::vector<float> out =
            RunGradient({9, 5, 0.0, 1.0, 0.0, 1.0, 0.5, 0.5, 0, 0.0f, tiling});
        for (int i = 0; i < 9; ++i) {
            const double t = 4.0 * (i / 8.0 - 0.5) + 0.5;
            EXPECT_NEAR(out[i], tiling == kTileNone ? Clamp01(t) : Saw(t), 1e-6) << i;
        }
    }
}

// A width too small for its reciprocal (1e-39 is in range) is a step, not NaN.
TEST(Gradient, WidthNarrowerThanASampleIsAStep) {
    for (float width : {1e-39f, std::numeric_limits<float>::denorm_min(), 2.9e-39f})
        for (int32_t direction : {0, 90, 45, 180})
            for (int32_t tiling : {kTileNone, kTileLinear, kTileDiscontinuous}) {
                SCOPED_TRACE(::testing::Message() << width << " " << direction << " " << tiling);
                const std::vector<float> out =
                    RunGradient({9, 9, 0.0, 1.0, 0.0, 1.0, 0.5, 0.5, direction, width, tiling});
                for (float v : out) ASSERT_TRUE(v >= 0.0f && v <= 1.0f) << v;
                if (direction != 0 || tiling != kTileNone) continue;
                for (int j = 0; j < 9; ++j) {
                    for (int i = 0; i < 9; ++i) {
                        if (i == 4) continue;
                        EXPECT_EQ(out[j * 9 + i], i < 4 ? 0.0f : 1.0f) << i << "," << j;
                    }
                }
            }
}

TEST(Gradient, SingleSampleGridsAndRowReports) {
    std::vector<int32_t> rows;
    std::vector<float> out(1, -1.0f);
    FillGradient({1, 1, 0.5, 0.5, 0.5, 0.5}, out.data(), [&](int32_t row) { rows.push_back(row); });
    EXPECT_FLOAT_EQ(out[0], 0.5f);
    EXPECT_EQ(rows, std::vector<int32_t>{0});

    rows.clear();
    out.assign(24, -1.0f);
    FillGradient({6, 4}, out.data(), [&](int32_t row) {
        // Every row up to this one is written, none after it.
        for (int i = 0; i < 24; ++i) EXPECT_EQ(out[i] != -1.0f, i / 6 <= row) << i;
        rows.push_back(row);
    });
    EXPECT_EQ(rows, (std::vector<int32_t>{0, 1, 2, 3}));
}

TEST(Gradient, TileRule) {
    const struct {
        double t;
        int32_t tiling;
        double want;
    } cases[] = {{-0.5, kTileNone, 0.0},           {1.5, kTileNone, 1.0},
                 {0.25, kTileNone, 0.25},          {1.25, kTileLinear, 0.75},
                 {-0.25, kTileLinear, 0.25},       {-1.75, kTileLinear, 0.25},
                 {3.0, kTileLinear, 1.0},          {4.0, kTileLinear, 0.0},
                 {1.25, kTileDiscontinuous, 0.25}, {-0.25, kTileDiscontinuous, 0.75},
                 {-2.0, kTileDiscontinuous, 0.0},  {5.5, 3, 5.5},
                 {-5.5, -1, -5.5}};
    for (const auto& c : cases)
        EXPECT_DOUBLE_EQ(TileGradient(c.t, c.tiling), c.want) << c.t << " tiling " << c.tiling;
}

struct RadialGrid {
    std::vector<double> xs, ys;
    RadialSetup setup;
    std::vector<float> out;

    RadialGrid(int w, int h, double x0, double x1, double y0, double y1, int shape, float radius,
               float value = 0.25f) {
        for (int i = 0; i < w; ++i) xs.push_back(Spread(x0, x1, i, w));
        for (int j = 0; j < h; ++j) ys.push_back(Spread(y0, y1, j, h));
        setup = {w, h, xs.data(), ys.data(), 0.5f, 0.5f, radius, shape};
        out.assign(static_cast<size_t>(w) * h, value);
    }
    void Run(const std::function<void(int32_t)>& percent = {}) {
        FillRadial(setup, out.data(), percent);
    }
    float At(int i, int j) const { return out[static_cast<size_t>(j) * setup.width + i]; }
};

// The shapes as functions of the offset from the anchor and the radius r
// (half the setting).
double Shape(int shape, double dx, double dy, double r) {
    const double d = std::hypot(dx, dy), m = std::fabs(dx) + std::fabs(dy);
    switch (shape) {
        case kRadialSpherical: return d < r ? std::sqrt(r * r - d * d) / r : 0.0;
        case kRadialGaussian: return std::exp(-d * d * 9.0 / (2.0 * r * r));  // sigma = r / 3
        case kRadialDiamond: return m < r ? (r - m) / r : 0.0;
        case kRadialSquare: return std::fabs(dx) < r && std::fabs(dy) < r ? 1.0 : 0.0;
        case kRadialCone: return d < r ? 1.0 - d / r : 0.0;
    }
    return 0.0;
}

TEST(Radial, MatchesTheShapeFormulas) {
    const struct {
        int shape;
        float radius, px, py;
    } cases[] = {
        {kRadialSpherical, 1.0f, 0.5f, 0.5f}, {kRadialSpherical, 3.0f, 0.2f, 1.1f},
        {kRadialGaussian, 1.0f, 0.5f, 0.5f},  {kRadialGaussian, 2.5f, -0.3f, 0.7f},
        {kRadialDiamond, 1.0f, 0.5f, 0.5f},   {kRadialDiamond, 4.0f, 1.0f, 0.0f},
        {kRadialSquare, 1.3f, 0.4f, 0.45f},   {kRadialCone, 1.0f, 0.5f, 0.5f},
        {kRadialCone, 2.0f, 0.75f, 0.25f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "shape " << c.shape << " radius " << c.radius);
        RadialGrid g(37, 29, -1.0, 2.0, -0.5, 1.5, c.shape, c.radius);
        g.setup.anchorX = c.px;
        g.setup.anchorY = c.py;
        g.Run();
        const double r = c.radius * 0.5;
        for (int j = 0; j < g.setup.height; ++j)
            for (int i = 0; i < g.setup.width; ++i) {
                const double dx = g.xs[i] - c.px, dy = g.ys[j] - c.py;
                // The square's edge is a step: skip samples within rounding of it.
                if (c.shape == kRadialSquare &&
                    (std::fabs(std::fabs(dx) - r) < 1e-6 || std::fabs(std::fabs(dy) - r) < 1e-6))
                    continue;
                // Single precision square roots near the sphere's rim.
                ASSERT_NEAR(g.At(i, j), Shape(c.shape, dx, dy, r),
                            2e-3 * (c.shape == kRadialSpherical) + 2e-6)
                    << i << "," << j;
            }
    }
}

TEST(Radial, GaussianPeakAndThreshold) {
    for (float radius : {0.001f, 0.5f, 1.0f, 7.0f, 64.0f, 4e-8f}) {
        RadialGrid g(5, 5, 0.0, 1.0, 0.0, 1.0, kRadialGaussian, radius);
        g.Run();
        EXPECT_FLOAT_EQ(g.At(2, 2), 1.0f) << radius;
        if (radius < 1e-7f) {
            EXPECT_EQ(g.At(0, 0), 0.0f);  // far tails flush to 0
        }
    }
    // Below 1e-8 nothing is written: 2e-8 gives r = 1e-8 as a float, just
    // below 1e-8 as a double.
    for (float radius : {0.0f, 1e-9f, 2e-8f}) {
        RadialGrid g(6, 4, 0.0, 1.0, 0.0, 1.0, kRadialGaussian, radius, 0.375f);
        g.Run();
        for (float v : g.out) EXPECT_EQ(v, 0.375f) << radius;
    }
}

// The device fills bands of columns on several threads: any split of the
// columns gives the bits of the one-thread fill, unwritten samples included.
TEST(Radial, ColumnBandsGiveTheBitsOfTheWholeFill) {
    for (int shape = kRadialSpherical; shape <= kRadialCone; ++shape)
        for (float radius : {0.0f, 1e-9f, 0.3f, 1.7f, 64.0f}) {
            SCOPED_TRACE(::testing::Message() << shape << " " << radius);
            RadialGrid whole(13, 7, -0.5, 1.5, 0.0, 1.0, shape, radius, 0.375f);
            RadialGrid bands = whole;
            bands.setup.columnX = bands.xs.data();
            bands.setup.rowY = bands.ys.data();
            whole.Run();
            for (int column : {0, 1, 5, 12})
                FillRadialColumns(bands.setup, column, column, bands.out.data());
            FillRadialColumns(bands.setup, 2, 4, bands.out.data());
            FillRadialColumns(bands.setup, 6, 11, bands.out.data());
            ASSERT_EQ(std::memcmp(whole.out.data(), bands.out.data(), whole.out.size() * 4), 0);
        }
}

TEST(Radial, SquareEdgesAreOutsideAndZeroRadiusFlattens) {
    // Samples every 0.125; radius 0.5 puts the edges on samples 2 and 6.
    RadialGrid g(9, 9, 0.0, 1.0, 0.0, 1.0, kRadialSquare, 0.5f);
    g.Run();
    for (int j = 0; j < 9; ++j)
        for (int i = 0; i < 9; ++i)
            EXPECT_EQ(g.At(i, j), (i > 2 && i < 6 && j > 2 && j < 6) ? 1.0f : 0.0f)
                << i << "," << j;
    for (int shape : {kRadialSpherical, kRadialDiamond, kRadialSquare, kRadialCone}) {
        RadialGrid zero(5, 5, 0.0, 1.0, 0.0, 1.0, shape, 0.0f);  // a sample sits on the anchor
        zero.Run();
        for (float v : zero.out) EXPECT_EQ(v, 0.0f) << "shape " << shape;
    }
}

TEST(Radial, EverySampleWithinZeroToOne) {
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> anchor(-1.0f, 2.0f), radius(0.0f, 64.0f);
    for (int shape = 0; shape <= 4; ++shape)
        for (int trial = 0; trial < 20; ++trial) {
            RadialGrid g(33, 17, -2.0, 3.0, -1.0, 2.5, shape,
                         trial == 0 ? 0.0f : (trial == 1 ? 1e-3f : radius(rng)));
            g.setup.anchorX = anchor(rng);
            g.setup.anchorY = anchor(rng);
            g.Run();
            for (float v : g.out) ASSERT_TRUE(v >= 0.0f && v <= 1.0f) << v;
        }
}

TEST(Radial, NaNCoordinates) {
    RadialGrid g(2, 1, 0.0, 1.0, 0.0, 0.0, kRadialCone, 8.0f);
    g.xs[1] = std::numeric_limits<double>::quiet_NaN();
    g.Run();
    EXPECT_EQ(g.At(1, 0), 0.0f);  // a NaN distance fails "inside"
    g.setup.shape = kRadialGaussian;
    g.Run();
    EXPECT_EQ(g.At(1, 0), 1.0f);
}

TEST(Radial, VisitsColumnByColumnAndReportsHundredths) {
    // 20 x 10 samples: a report every 2 samples visited.
    RadialGrid g(20, 10, 0.0, 1.0, 0.0, 1.0, kRadialSquare, 100.0f, -1.0f);
    std::vector<int32_t> reports;
    g.Run([&](int32_t percent) {
        // Exactly the first 2 * percent samples in column order are written.
        for (int k = 0; k < 200 && reports.size() < 100; ++k)
            ASSERT_EQ(g.At(k / 10, k % 10) == 1.0f, k < 2 * percent)
                << percent << "%, sample " << k;
        reports.push_back(percent);
    });
    std::vector<int32_t> want;
    for (int p = 1; p <= 100; ++p) want.push_back(p);
    want.push_back(100);
    EXPECT_EQ(reports, want);

    // Fewer than 100 samples: only the final report.
    RadialGrid small(7, 7, 0.0, 1.0, 0.0, 1.0, kRadialGaussian, 1.0f);
    reports.clear();
    small.Run([&](int32_t percent) { reports.push_back(percent); });
    EXPECT_EQ(reports, std::vector<int32_t>{100});
}

// The devices on the reference host's services.

class GeneratorDevices : public testing::FrameworkTest {
protected:
    PacketRef BuildOn(Device& device, const Grid& grid) {
        BuildResultSet results;
        EXPECT_EQ(device.Process(Context(grid, &results)), 1);
        DeviceResult& result = doGetDevice(&results, &device);
        return result.outputs.empty() ? PacketRef() : result.outputs[0];
    }
};

// Version 2 restores anchor, mode and parameters; version 1 takes mode 1 and
// a centred anchor; another device's tag is refused with nothing changed.
template <class T>
void CheckSavedState(const char* tag) {
    T device;
    device.anchor[0] = 0.125f;
    device.anchor[1] = 2.5f;
    device.mode = 3;
    for (ParamRecord& p : device.params.records) {
        if (p.kind == kParamReal) p.value.f = p.maximum.f;
        else if (p.kind != kParamAction) p.value.i = p.maximum.i;
    }
    const std::string bytes = testing::SavedBytes(device);
    ASSERT_GE(bytes.size(), 10u);
    EXPECT_EQ(bytes.substr(0, 9), std::string(tag) + "\x02SPRK");
    const struct {
        char version;
        const char* tag;
        bool ok;
        float anchor;
        uint32_t mode;
    } cases[] = {{2, tag, true, 0.125f, 3}, {1, tag, true, 0.5f, 1}, {2, "CHGT", false, 9.0f, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << tag << " as " << c.tag << " version " << int(c.version));
        std::string changed = bytes;
        changed.replace(0, 4, c.tag);
        changed[4] = c.version;
        T loaded;
        loaded.anchor[0] = 9.0f;
        EXPECT_EQ(testing::LoadBytes(loaded, changed), c.ok);
        EXPECT_EQ(loaded.anchor[0], c.anchor);
        EXPECT_EQ(loaded.mode, c.mode);
        if (c.version == 2 && c.ok) {
            EXPECT_EQ(loaded.anchor[1], 2.5f);
            for (size_t k = 0; k < loaded.params.records.size(); ++k)
                EXPECT_EQ(loaded.params.records[k].value.i, device.params.records[k].value.i) << k;
        }
    }
}

TEST_F(GeneratorDevices, SavedStateAndOlderVersions) {
    CheckSavedState<GradGen>("GRAD");
    CheckSavedState<CircularGrad>("CGRD");
}

TEST_F(GeneratorDevices, GradientBuildUsesTheWorldExtentAndAnchor) {
    GradGen grad;
    grad.anchor[0] = 2.0f;
    grad.anchor[1] = 0.0f;
    grad.params.records[1].value.f = 2.0f;  // Width
    const Grid grid{21, 6, 0.0, -1.0, 4.0, 1.0};  // 0.2 units per column
    PacketRef field = BuildOn(grad, grid);
    ASSERT_TRUE(field);
    EXPECT_EQ(field->grid.width, 21);
    for (int j = 0; j < grid.height; ++j)
        for (int i = 0; i < grid.width; ++i)
            EXPECT_NEAR(field->samples[j * grid.width + i], Clamp01((0.2 * i - 2.0) / 2.0 + 0.5),
                        1e-6);
    EXPECT_EQ(recorder.rows, (std::vector<std::pair<int32_t, int32_t>>{
                                 {0, 6}, {1, 6}, {2, 6}, {3, 6}, {4, 6}, {5, 6}}));
}

TEST_F(GeneratorDevices, RadialBuildUsesTheWorldExtentAndAnchor) {
    CircularGrad radial;
    radial.anchor[0] = 3.0f;
    radial.anchor[1] = 1.0f;
    radial.params.records[0].value.f = 4.0f;  // r = 2
    radial.params.records[1].value.i = kRadialCone;
    const Grid grid{17, 9, 0.0, -1.0, 8.0, 3.0};  // 0.5 units per sample
    PacketRef field = BuildOn(radial, grid);
    ASSERT_TRUE(field);
    for (int j = 0; j < grid.height; ++j)
        for (int i = 0; i < grid.width; ++i)
            EXPECT_NEAR(field->samples[j * grid.width + i],
                        Shape(kRadialCone, 0.5 * i - 3.0, 0.5 * j - 2.0, 2.0), 1e-6);
    // 17 bands of one column: a rising percentage after each, ending at 100.
    ASSERT_EQ(recorder.percents.size(), 17u);
    EXPECT_TRUE(std::is_sorted(recorder.percents.begin(), recorder.percents.end()));
    EXPECT_EQ(recorder.percents.front(), 5);
    EXPECT_EQ(recorder.percents.back(), 100);

    // A Gaussian of radius 0 keeps the fresh field.
    radial.params.records[0].value.f = 0.0f;
    radial.params.records[1].value.i = kRadialGaussian;
    field = BuildOn(radial, Grid{4, 4});
    ASSERT_TRUE(field);
    for (int k = 0; k < 16; ++k) EXPECT_EQ(field->samples[k], 0.0f);
}

}  // namespace
}  // namespace basekit
