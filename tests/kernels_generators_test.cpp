// Gradient and radial kernels against the ramp and shape formulas written out
// here, plus the two devices' saved state and builds on the reference host.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "devices/generators/CircularGrad.h"
#include "devices/generators/GradGen.h"
#include "framework/Device.h"

#include "TestHost.h"

namespace basekit {
namespace {

// ---------------------------------------------------------------------------
// Gradient

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

struct GradientCase {
    const char* what;
    int32_t direction;
    float width;
    int32_t tiling;
    double px, py;
    // Expected height at world (x, y), relative to the anchor already.
    std::function<double(double dx, double dy)> expected;
};

TEST(Gradient, MatchesTheRampFormula) {
    const double r2 = std::sqrt(0.5);
    const GradientCase cases[] = {
        {"east, width 1, none", 0, 1.0f, kTileNone, 0.5, 0.5,
         [](double dx, double) { return Clamp01(dx + 0.5); }},
        {"east through an off-centre anchor", 0, 1.0f, kTileNone, 0.25, 0.8,
         [](double dx, double) { return Clamp01(dx + 0.5); }},
        {"south, width 2", 90, 2.0f, kTileNone, 0.5, 0.5,
         [](double, double dy) { return Clamp01(dy / 2.0 + 0.5); }},
        {"west, width 0.5", 180, 0.5f, kTileNone, 0.0, 0.0,
         [](double dx, double) { return Clamp01(-2.0 * dx + 0.5); }},
        {"diagonal 45", 45, 1.0f, kTileNone, 0.5, 0.5,
         [r2](double dx, double dy) { return Clamp01((dx + dy) * r2 + 0.5); }},
        {"full turn is east", 360, 1.0f, kTileNone, 0.5, 0.5,
         [](double dx, double) { return Clamp01(dx + 0.5); }},
        {"linear, width 1", 0, 1.0f, kTileLinear, 0.5, 0.5,
         [](double dx, double) { return Zigzag(dx + 0.5); }},
        {"linear, width 0.75, south", 90, 0.75f, kTileLinear, 0.3, 0.6,
         [](double, double dy) { return Zigzag(dy / 0.75 + 0.5); }},
        {"discontinuous, width 1", 0, 1.0f, kTileDiscontinuous, 0.5, 0.5,
         [](double dx, double) { return Saw(dx + 0.5); }},
        {"discontinuous, width 1.5, west", 180, 1.5f, kTileDiscontinuous, 1.0, 0.0,
         [](double dx, double) { return Saw(-dx / 1.5 + 0.5); }},
        {"unknown tiling leaves the ramp", 0, 1.0f, 7, 0.5, 0.5,
         [](double dx, double) { return dx + 0.5; }},
    };
    for (const GradientCase& c : cases) {
        SCOPED_TRACE(c.what);
        GradientSetup s;
        s.width = 41;
        s.height = 23;
        s.left = -3.0;
        s.right = 4.0;
        s.top = -2.0;
        s.bottom = 3.5;
        s.anchorX = c.px;
        s.anchorY = c.py;
        s.direction = c.direction;
        s.rampWidth = c.width;
        s.tiling = c.tiling;
        std::vector<float> out = RunGradient(s);
        for (int j = 0; j < s.height; ++j) {
            for (int i = 0; i < s.width; ++i) {
                double wx = Spread(s.left, s.right, i, s.width);
                double wy = Spread(s.top, s.bottom, j, s.height);
                double want = c.expected(wx - c.px, wy - c.py);
                float got = out[static_cast<size_t>(j) * s.width + i];
                // Near a saw tooth's jump the two sides are both right.
                if (c.tiling == kTileDiscontinuous && (want < 1e-5 || want > 1.0 - 1e-5)) continue;
                ASSERT_NEAR(got, want, 2e-6) << "at column " << i << ", row " << j;
            }
        }
    }
}

TEST(Gradient, HalfOnTheLineThroughTheAnchorRisingOnePerUnitEast) {
    // Columns every 0.25 units, so the anchor column is sampled exactly.
    GradientSetup s;
    s.width = 17;
    s.height = 3;
    s.left = -1.0;
    s.right = 3.0;
    s.top = 0.0;
    s.bottom = 1.0;
    s.anchorX = 0.75;
    s.anchorY = 0.5;
    std::vector<float> out = RunGradient(s);
    const int anchorColumn = 7;  // -1 + 7 * 0.25 = 0.75
    for (int j = 0; j < s.height; ++j) {
        const float* row = out.data() + j * s.width;
        EXPECT_FLOAT_EQ(row[anchorColumn], 0.5f);
        EXPECT_FLOAT_EQ(row[anchorColumn + 1], 0.75f);
        EXPECT_FLOAT_EQ(row[anchorColumn + 2], 1.0f);
        EXPECT_FLOAT_EQ(row[anchorColumn - 2], 0.0f);
        EXPECT_EQ(row[0], 0.0f);           // clamped below
        EXPECT_EQ(row[s.width - 1], 1.0f);  // clamped above
    }
}

TEST(Gradient, TilingPeriods) {
    // Samples every 1/8 unit; the ramp width is a whole number of samples, so
    // shifting by one period lands on another sample.
    for (float width : {0.5f, 1.0f, 2.0f}) {
        SCOPED_TRACE(width);
        GradientSetup s;
        s.width = 97;
        s.height = 1;
        s.left = -4.0;
        s.right = 8.0;
        s.anchorX = 0.5;
        s.anchorY = 0.0;
        s.rampWidth = width;
        const int samplesPerUnit = 8;

        s.tiling = kTileLinear;
        std::vector<float> zig = RunGradient(s);
        const int zigPeriod = static_cast<int>(2 * width * samplesPerUnit);
        for (int i = 0; i + zigPeriod < s.width; ++i)
            EXPECT_NEAR(zig[i], zig[i + zigPeriod], 1e-6) << i;
        // Continuous: neighbours differ by at most one step of the ramp.
        const double rise = 1.0 / (width * samplesPerUnit);
        for (int i = 0; i + 1 < s.width; ++i) EXPECT_LE(std::fabs(zig[i + 1] - zig[i]), rise + 1e-6);
        // It reaches both ends of the range.
        EXPECT_NEAR(*std::min_element(zig.begin(), zig.end()), 0.0f, 1e-6);
        EXPECT_NEAR(*std::max_element(zig.begin(), zig.end()), 1.0f, 1e-6);

        s.tiling = kTileDiscontinuous;
        std::vector<float> saw = RunGradient(s);
        const int sawPeriod = static_cast<int>(width * samplesPerUnit);
        int jumps = 0;
        for (int i = 0; i + 1 < s.width; ++i) {
            if (saw[i + 1] < saw[i]) ++jumps;
            if (i + sawPeriod < s.width && std::fabs(saw[i] - saw[i + sawPeriod]) > 1e-6 &&
                std::fabs(std::fabs(saw[i] - saw[i + sawPeriod]) - 1.0) > 1e-6)
                ADD_FAILURE() << "saw tooth not periodic at " << i;
            EXPECT_GE(saw[i], 0.0f);
            EXPECT_LE(saw[i], 1.0f);  // just below 1 in double may round to 1
        }
        // One drop per period across 12 world units.
        EXPECT_NEAR(jumps, 12.0 / width, 1.0);
    }
}

TEST(Gradient, ZeroWidthClimbsOneUnitPerSampleOfTheShorterSide) {
    GradientSetup s;
    s.width = 9;
    s.height = 5;  // k = min(8, 4) = 4
    s.left = 0.0;
    s.right = 1.0;
    s.top = 0.0;
    s.bottom = 1.0;
    s.rampWidth = 0.0f;
    s.tiling = kTileNone;
    std::vector<float> out = RunGradient(s);
    for (int i = 0; i < s.width; ++i)
        EXPECT_NEAR(out[i], Clamp01(4.0 * (i / 8.0 - 0.5) + 0.5), 1e-6) << i;
    s.tiling = kTileDiscontinuous;
    out = RunGradient(s);
    for (int i = 0; i < s.width; ++i) {
        double want = Saw(4.0 * (i / 8.0 - 0.5) + 0.5);
        EXPECT_NEAR(out[i], want, 1e-6) << i;
    }
}

TEST(Gradient, SingleSampleGridsAndRowReports) {
    GradientSetup s;
    s.width = 1;
    s.height = 1;
    s.left = s.right = 0.5;
    s.top = s.bottom = 0.5;
    std::vector<int32_t> rows;
    std::vector<float> out(1, -1.0f);
    FillGradient(s, out.data(), [&](int32_t row) { rows.push_back(row); });
    EXPECT_FLOAT_EQ(out[0], 0.5f);
    EXPECT_EQ(rows, std::vector<int32_t>{0});

    s.width = 6;
    s.height = 4;
    rows.clear();
    out.assign(24, -1.0f);
    FillGradient(s, out.data(), [&](int32_t row) {
        // Every row up to this one is written, none after it.
        for (int i = 0; i < 24; ++i) EXPECT_EQ(out[i] != -1.0f, i / 6 <= row) << i;
        rows.push_back(row);
    });
    EXPECT_EQ(rows, (std::vector<int32_t>{0, 1, 2, 3}));
}

TEST(Gradient, TileRule) {
    struct {
        double t;
        int32_t tiling;
        double want;
    } const cases[] = {
        {-0.5, kTileNone, 0.0},          {1.5, kTileNone, 1.0},
        {0.25, kTileNone, 0.25},         {1.25, kTileLinear, 0.75},
        {-0.25, kTileLinear, 0.25},      {-1.75, kTileLinear, 0.25},
        {3.0, kTileLinear, 1.0},         {4.0, kTileLinear, 0.0},
        {1.25, kTileDiscontinuous, 0.25}, {-0.25, kTileDiscontinuous, 0.75},
        {-2.0, kTileDiscontinuous, 0.0}, {5.5, 3, 5.5},
        {-5.5, -1, -5.5},
    };
    for (const auto& c : cases)
        EXPECT_DOUBLE_EQ(TileGradient(c.t, c.tiling), c.want) << c.t << " tiling " << c.tiling;
}

// ---------------------------------------------------------------------------
// Radial

struct RadialGrid {
    std::vector<double> xs, ys;
    RadialSetup setup;
    std::vector<float> out;

    RadialGrid(int w, int h, double x0, double x1, double y0, double y1) {
        for (int i = 0; i < w; ++i) xs.push_back(Spread(x0, x1, i, w));
        for (int j = 0; j < h; ++j) ys.push_back(Spread(y0, y1, j, h));
        setup.width = w;
        setup.height = h;
        setup.columnX = xs.data();
        setup.rowY = ys.data();
        out.assign(static_cast<size_t>(w) * h, 0.25f);
    }
    void Run(const std::function<void(int32_t)>& percent = {}) { FillRadial(setup, out.data(), percent); }
    float At(int i, int j) const { return out[static_cast<size_t>(j) * setup.width + i]; }
};

// The shapes as functions of the distance to the anchor (dx, dy) and the
// radius r (half the setting).
double Shape(int shape, double dx, double dy, double r) {
    double d = std::hypot(dx, dy);
    switch (shape) {
        case kRadialSpherical:
            return d < r ? std::sqrt(r * r - d * d) / r : 0.0;
        case kRadialGaussian:
            // Peak 1; sigma = r / 3.
            return std::exp(-d * d * 9.0 / (2.0 * r * r));
        case kRadialDiamond: {
            double m = std::fabs(dx) + std::fabs(dy);
            return m < r ? (r - m) / r : 0.0;
        }
        case kRadialSquare:
            return std::fabs(dx) < r && std::fabs(dy) < r ? 1.0 : 0.0;
        case kRadialCone:
            return d < r ? 1.0 - d / r : 0.0;
    }
    return 0.0;
}

TEST(Radial, MatchesTheShapeFormulas) {
    struct {
        int shape;
        float radius;
        float px, py;
    } const cases[] = {
        {kRadialSpherical, 1.0f, 0.5f, 0.5f}, {kRadialSpherical, 3.0f, 0.2f, 1.1f},
        {kRadialGaussian, 1.0f, 0.5f, 0.5f},  {kRadialGaussian, 2.5f, -0.3f, 0.7f},
        {kRadialDiamond, 1.0f, 0.5f, 0.5f},   {kRadialDiamond, 4.0f, 1.0f, 0.0f},
        {kRadialSquare, 1.3f, 0.4f, 0.45f},   {kRadialCone, 1.0f, 0.5f, 0.5f},
        {kRadialCone, 2.0f, 0.75f, 0.25f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "shape " << c.shape << " radius " << c.radius);
        RadialGrid g(37, 29, -1.0, 2.0, -0.5, 1.5);
        g.setup.shape = c.shape;
        g.setup.radius = c.radius;
        g.setup.anchorX = c.px;
        g.setup.anchorY = c.py;
        g.Run();
        const double r = c.radius * 0.5;
        for (int j = 0; j < g.setup.height; ++j) {
            for (int i = 0; i < g.setup.width; ++i) {
                double dx = g.xs[i] - c.px, dy = g.ys[j] - c.py;
                double want = Shape(c.shape, dx, dy, r);
                // The square's edge is a step: skip samples within rounding of it.
                if (c.shape == kRadialSquare &&
                    (std::fabs(std::fabs(dx) - r) < 1e-6 || std::fabs(std::fabs(dy) - r) < 1e-6))
                    continue;
                // Single precision square roots near the rim.
                ASSERT_NEAR(g.At(i, j), want, 2e-3 * (c.shape == kRadialSpherical) + 2e-6)
                    << "at column " << i << ", row " << j;
            }
        }
    }
}

TEST(Radial, GaussianPeakIsOneAtTheAnchor) {
    for (float radius : {0.001f, 0.5f, 1.0f, 7.0f, 64.0f}) {
        RadialGrid g(5, 5, 0.0, 1.0, 0.0, 1.0);
        g.setup.shape = kRadialGaussian;
        g.setup.radius = radius;
        g.Run();
        EXPECT_FLOAT_EQ(g.At(2, 2), 1.0f) << radius;
        EXPECT_LE(g.At(2, 2), 1.0f);
    }
}

TEST(Radial, GaussianBelowTheThresholdLeavesTheField) {
    // Radius 2e-8 gives r = 1e-8 as a float, just below 1e-8 as a double.
    for (float radius : {0.0f, 1e-9f, 2e-8f}) {
        RadialGrid g(6, 4, 0.0, 1.0, 0.0, 1.0);
        g.setup.shape = kRadialGaussian;
        g.setup.radius = radius;
        g.out.assign(24, 0.375f);
        g.Run();
        for (float v : g.out) EXPECT_EQ(v, 0.375f) << radius;
    }
    // Just above, the anchor sample is written.
    RadialGrid g(3, 3, 0.0, 1.0, 0.0, 1.0);
    g.setup.shape = kRadialGaussian;
    g.setup.radius = 4e-8f;
    g.out.assign(9, 0.375f);
    g.Run();
    EXPECT_FLOAT_EQ(g.At(1, 1), 1.0f);
    EXPECT_EQ(g.At(0, 0), 0.0f);  // far tails flush to 0
}

TEST(Radial, SquareEdgesAreOutside) {
    // Samples every 0.125; radius 0.5 puts the edges on samples 2 and 6.
    RadialGrid g(9, 9, 0.0, 1.0, 0.0, 1.0);
    g.setup.shape = kRadialSquare;
    g.setup.radius = 0.5f;
    g.setup.anchorX = 0.5f;
    g.setup.anchorY = 0.5f;
    g.Run();
    for (int j = 0; j < 9; ++j)
        for (int i = 0; i < 9; ++i)
            EXPECT_EQ(g.At(i, j), (i > 2 && i < 6 && j > 2 && j < 6) ? 1.0f : 0.0f) << i << "," << j;
}

TEST(Radial, ZeroRadiusFlattensEveryShapeButGaussian) {
    for (int shape : {kRadialSpherical, kRadialDiamond, kRadialSquare, kRadialCone}) {
        RadialGrid g(5, 5, 0.0, 1.0, 0.0, 1.0);  // a sample sits on the anchor
        g.setup.shape = shape;
        g.setup.radius = 0.0f;
        g.Run();
        for (float v : g.out) EXPECT_EQ(v, 0.0f) << "shape " << shape;
    }
}

TEST(Radial, EverySampleWithinZeroToOne) {
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> anchor(-1.0f, 2.0f), radius(0.0f, 64.0f);
    for (int shape = 0; shape <= 4; ++shape) {
        for (int trial = 0; trial < 20; ++trial) {
            RadialGrid g(33, 17, -2.0, 3.0, -1.0, 2.5);
            g.setup.shape = shape;
            g.setup.radius = trial == 0 ? 0.0f : (trial == 1 ? 1e-3f : radius(rng));
            g.setup.anchorX = anchor(rng);
            g.setup.anchorY = anchor(rng);
            g.Run();
            for (float v : g.out) {
                ASSERT_FALSE(std::isnan(v));
                ASSERT_GE(v, 0.0f);
                ASSERT_LE(v, 1.0f);
            }
        }
    }
}

TEST(Radial, NaNCoordinatesClampToOne) {
    RadialGrid g(2, 1, 0.0, 1.0, 0.0, 0.0);
    g.xs[1] = std::numeric_limits<double>::quiet_NaN();
    g.setup.shape = kRadialCone;
    g.setup.radius = 8.0f;
    g.Run();
    // A NaN distance fails "inside" and writes 0 for the cone.
    EXPECT_EQ(g.At(1, 0), 0.0f);
    g.setup.shape = kRadialGaussian;
    g.Run();
    EXPECT_EQ(g.At(1, 0), 1.0f);
}

TEST(Radial, VisitsColumnByColumnAndReportsHundredths) {
    // 20 x 10 samples: a report every 2 samples visited.
    RadialGrid g(20, 10, 0.0, 1.0, 0.0, 1.0);
    g.setup.shape = kRadialSquare;
    g.setup.radius = 100.0f;  // covers everything
    g.out.assign(200, -1.0f);
    std::vector<int32_t> reports;
    g.Run([&](int32_t percent) {
        if (reports.size() < 100) {
            // Exactly the first 2 * percent samples in column order are written.
            int done = 2 * percent;
            for (int k = 0; k < 200; ++k) {
                int x = k / 10, y = k % 10;
                float v = g.out[static_cast<size_t>(y) * 20 + x];
                ASSERT_EQ(v == 1.0f, k < done) << "after " << percent << "%, column " << x
                                              << " row " << y;
            }
        }
        reports.push_back(percent);
    });
    std::vector<int32_t> want;
    for (int p = 1; p <= 100; ++p) want.push_back(p);
    want.push_back(100);
    EXPECT_EQ(reports, want);

    // Fewer than 100 samples: only the final report.
    RadialGrid small(7, 7, 0.0, 1.0, 0.0, 1.0);
    reports.clear();
    small.Run([&](int32_t percent) { reports.push_back(percent); });
    EXPECT_EQ(reports, std::vector<int32_t>{100});
}

// ---------------------------------------------------------------------------
// The devices on the reference host's services.

class GeneratorDevices : public testing::FrameworkTest {
protected:
    // Builds `device` on `grid` and returns its output 0.
    PacketRef BuildOn(Device& device, const Grid& grid) {
        BuildResultSet results;
        EXPECT_EQ(device.Process(Context(grid, &results)), 1);
        DeviceResult& result = doGetDevice(&results, &device);
        return result.outputs.empty() ? PacketRef() : result.outputs[0];
    }
};

// Saved state with its version byte replaced.
std::string WithVersion(std::string bytes, uint8_t version) {
    bytes[4] = static_cast<char>(version);
    return bytes;
}

template <class T>
void CheckSavedState(const char* tag) {
    T device;
    device.anchor[0] = 0.125f;
    device.anchor[1] = 2.5f;
    device.mode = 3;
    std::ostringstream saved;
    ASSERT_TRUE(device.Save(saved));
    const std::string bytes = saved.str();
    ASSERT_GE(bytes.size(), 10u);
    EXPECT_EQ(bytes.substr(0, 4), tag);
    EXPECT_EQ(static_cast<uint8_t>(bytes[4]), 2);
    EXPECT_EQ(bytes.substr(5, 4), "SPRK");

    {  // Version 2 restores anchor and mode.
        T loaded;
        std::istringstream in(bytes);
        ASSERT_TRUE(loaded.Load(in));
        EXPECT_EQ(loaded.anchor[0], 0.125f);
        EXPECT_EQ(loaded.anchor[1], 2.5f);
        EXPECT_EQ(loaded.mode, 3u);
    }
    {  // Version 1: mode 1 and a centred anchor.
        T loaded;
        std::istringstream in(WithVersion(bytes, 1));
        ASSERT_TRUE(loaded.Load(in));
        EXPECT_EQ(loaded.anchor[0], 0.5f);
        EXPECT_EQ(loaded.anchor[1], 0.5f);
        EXPECT_EQ(loaded.mode, 1u);
    }
    {  // Another device's tag: refused, nothing changed.
        T loaded;
        loaded.anchor[0] = 9.0f;
        std::string other = bytes;
        other.replace(0, 4, "CHGT");
        std::istringstream in(other);
        EXPECT_FALSE(loaded.Load(in));
        EXPECT_EQ(loaded.anchor[0], 9.0f);
        EXPECT_EQ(loaded.mode, 0u);
    }
}

TEST_F(GeneratorDevices, SavedStateAndOlderVersions) {
    CheckSavedState<GradGen>("GRAD");
    CheckSavedState<CircularGrad>("CGRD");
}

TEST_F(GeneratorDevices, ParametersSurviveSaveAndLoad) {
    GradGen grad;
    grad.params.records[0].value.i = 135;
    grad.params.records[1].value.f = 2.75f;
    grad.params.records[2].value.i = 2;
    std::ostringstream saved;
    ASSERT_TRUE(grad.Save(saved));
    GradGen loaded;
    std::istringstream in(saved.str());
    ASSERT_TRUE(loaded.Load(in));
    EXPECT_EQ(ParamInt(&loaded, "Direction"), 135);
    EXPECT_EQ(ParamFloat(&loaded, "Width"), 2.75f);
    EXPECT_EQ(ParamInt(&loaded, "Tiling"), 2);
}

TEST_F(GeneratorDevices, GradientBuildUsesTheWorldExtentAndAnchor) {
    GradGen grad;
    grad.anchor[0] = 2.0f;
    grad.anchor[1] = 0.0f;
    Grid grid;
    grid.width = 21;
    grid.height = 6;
    grid.x0 = 0.0;
    grid.x1 = 4.0;  // 0.2 units per column
    grid.y0 = -1.0;
    grid.y1 = 1.0;
    grad.params.records[1].value.f = 2.0f;  // Width
    PacketRef field = BuildOn(grad, grid);
    ASSERT_TRUE(field);
    EXPECT_EQ(field->grid.width, 21);
    for (int j = 0; j < grid.height; ++j)
        for (int i = 0; i < grid.width; ++i)
            EXPECT_NEAR(field->samples[j * grid.width + i], Clamp01((0.2 * i - 2.0) / 2.0 + 0.5), 1e-6);
    EXPECT_EQ(recorder.rows, (std::vector<std::pair<int32_t, int32_t>>{
                                 {0, 6}, {1, 6}, {2, 6}, {3, 6}, {4, 6}, {5, 6}}));
}

TEST_F(GeneratorDevices, RadialBuildUsesTheWorldExtentAndAnchor) {
    CircularGrad radial;
    radial.anchor[0] = 3.0f;
    radial.anchor[1] = 1.0f;
    radial.params.records[0].value.f = 4.0f;  // r = 2
    radial.params.records[1].value.i = kRadialCone;
    Grid grid;
    grid.width = 17;
    grid.height = 9;
    grid.x0 = 0.0;
    grid.x1 = 8.0;  // 0.5 units per sample
    grid.y0 = -1.0;
    grid.y1 = 3.0;
    PacketRef field = BuildOn(radial, grid);
    ASSERT_TRUE(field);
    for (int j = 0; j < grid.height; ++j)
        for (int i = 0; i < grid.width; ++i) {
            double dx = 0.5 * i - 3.0, dy = -1.0 + 0.5 * j - 1.0;
            EXPECT_NEAR(field->samples[j * grid.width + i], Shape(kRadialCone, dx, dy, 2.0), 1e-6);
        }
    // 17 bands of one column: a rising percentage after each, ending at 100.
    ASSERT_EQ(recorder.percents.size(), 17u);
    EXPECT_TRUE(std::is_sorted(recorder.percents.begin(), recorder.percents.end()));
    EXPECT_EQ(recorder.percents.front(), 5);
    EXPECT_EQ(recorder.percents.back(), 100);
}

TEST_F(GeneratorDevices, RadialGaussianOfZeroRadiusKeepsTheFreshField) {
    CircularGrad radial;
    radial.params.records[0].value.f = 0.0f;
    PacketRef field = BuildOn(radial, Grid{4, 4});
    ASSERT_TRUE(field);
    for (int k = 0; k < 16; ++k) EXPECT_EQ(field->samples[k], 0.0f);
}

}  // namespace
}  // namespace basekit
