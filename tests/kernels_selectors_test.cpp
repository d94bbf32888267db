// The selectors' kernels on ground whose answer is known: flat ground at
// every heading, elevation 90, slopes facing away, the direction of a slope,
// and the one-sided Laplacian at the edges.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "devices/selectors/FacingRows.h"
#include "devices/selectors/SelectorKernels.h"
#include "framework/Neighbourhood.h"
#include "framework/PortableMath.h"

namespace basekit {
namespace {

Orogen::Grid GridOf(int32_t w, int32_t h, double x1 = 1.0) {
    Orogen::Grid grid;
    grid.width = w;
    grid.height = h;
    grid.x1 = x1;
    return grid;
}

TEST(FacingKernel, FlatGroundAndOverhead) {
    const std::vector<float> flat(4 * 3, 0.4f);
    std::vector<float> mask(flat.size()), angle(flat.size());
    for (int32_t heading : {0, 90, 200, 359}) {
        FacingRows(flat.data(), GridOf(4, 3), MakeFacingDirection(heading, 45), 0, 2, mask.data(),
                   angle.data());
        for (size_t i = 0; i < flat.size(); ++i) {
            EXPECT_NEAR(mask[i], 0.70710677f, 2e-6f) << heading;
            EXPECT_EQ(angle[i], 0.5f);  // atan2(0, 0) = 0: halfway round
        }
    }
    // Elevation 90 selects by flatness: n . D = 1 / len, to the shortened pi.
    std::vector<float> ramp(5 * 3);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = 0.1f * static_cast<float>(i % 5);
    const Orogen::Grid grid = GridOf(5, 3, 0.5);  // 10 samples a unit: gx = 1
    mask.assign(ramp.size(), -1.0f);
    angle.assign(ramp.size(), -1.0f);
    FacingRows(ramp.data(), grid, MakeFacingDirection(77, 90), 0, 2, mask.data(), angle.data());
    for (float v : mask) EXPECT_NEAR(v, 1.0f / std::sqrt(2.0f), 2e-6f);
}

TEST(FacingKernel, SlopesTowardAndAwayAndTheirDirection) {
    // Ramps rising 10 world units a unit toward +x, -x, +y and -y.
    const struct {
        float sx, sy;
        float angle;
    } ramps[] = {{1, 0, 0.5f}, {-1, 0, 1.0f}, {0, 1, 0.75f}, {0, -1, 0.25f}};
    const int32_t w = 5, h = 5;
    for (const auto& r : ramps) {
        std::vector<float> t(static_cast<size_t>(w) * h);
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x)
                t[static_cast<size_t>(y) * w + x] = 0.5f + 0.1f * (r.sx * x + r.sy * y);
        const Orogen::Grid grid = GridOf(w, h, 0.05);  // 100 samples a unit: slope 10
        std::vector<float> mask(t.size()), angle(t.size());
        // Heading 0 looks along +x, 90 along +y (the normal leans with the rise).
        const int32_t toward = r.sx > 0 ? 0 : r.sx < 0 ? 180 : r.sy > 0 ? 90 : 270;
        FacingRows(t.data(), grid, MakeFacingDirection(toward, 10), 0, h - 1, mask.data(),
                   angle.data());
        EXPECT_GT(mask[12], 0.9f) << toward;
        EXPECT_NEAR(angle[12], r.angle, 1e-6f) << toward;
        FacingRows(t.data(), grid, MakeFacingDirection((toward + 180) % 360, 10), 0, h - 1,
                   mask.data(), angle.data());
        EXPECT_EQ(mask[12], 0.0f) << toward;  // facing away: 0, never negative
    }
}

struct TestLanes {};

bool SameFloat(float a, float b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST(FacingKernel, TheLaneAtan2IsAtan2BitForBit) {
    const float inf = std::numeric_limits<float>::infinity(), nan = std::nanf("");
    std::vector<float> values = {0.0f,   -0.0f, 1.0f, -1.0f, 0.41421357f, 2.4142137f, 1e-30f,
                                 -3e25f, inf,   -inf, nan,   1e-45f,      7.0f,       -0.3f};
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> u(-40.0f, 40.0f);
    for (int i = 0; i < 300; ++i) values.push_back(u(rng));
    for (float y : values)
        for (float x : values)
            ASSERT_TRUE(SameFloat(facing::Atan2Lane<TestLanes>(y, x), Orogen::Atan2(y, x)))
                << y << ", " << x;
}

TEST(FacingKernel, EveryVectorPathGivesThePlainBits) {
    const int32_t w = 37, h = 11;
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    std::vector<float> t(static_cast<size_t>(w) * h);
    for (float& v : t) v = u(rng);
    t[50] = std::nanf("");
    const Orogen::Grid grid = GridOf(w, h, 0.2);
    for (VectorPath path : {VectorPath::Avx2, VectorPath::Avx512}) {
        if (!PathAvailable(path)) continue;
        for (int32_t heading : {0, 133, 359}) {
            const FacingDirection d = MakeFacingDirection(heading, 20);
            std::vector<float> f0(t.size()), a0(t.size()), f1(t.size()), a1(t.size());
            FacingRows(t.data(), grid, d, 0, h - 1, f0.data(), a0.data(), VectorPath::Plain);
            FacingRows(t.data(), grid, d, 0, h - 1, f1.data(), a1.data(), path);
            EXPECT_EQ(std::memcmp(f0.data(), f1.data(), t.size() * sizeof(float)), 0);
            EXPECT_EQ(std::memcmp(a0.data(), a1.data(), t.size() * sizeof(float)), 0);
        }
    }
}

TEST(ConvexKernel, CrestsHollowsAndClampedEdges) {
    // One raised corner of a 3x3 field.
    std::vector<float> t(9, 0.0f);
    t[0] = 1.0f;
    std::vector<float> out(9);
    const float gain = 0.125f;
    ConvexRows(t.data(), 3, 3, gain, 0, 2, out.data());
    EXPECT_EQ(out[0], 0.5f + 2.0f * gain);  // (0 - 2 + 1) twice: itself stands in
    EXPECT_EQ(out[1], 0.5f - gain);         // west neighbour 1, north is itself
    EXPECT_EQ(out[3], 0.5f - gain);
    EXPECT_EQ(out[4], 0.5f);
    EXPECT_EQ(out[8], 0.5f);
    // A hollow is dark; strength 0 gives 0.5 whatever the ground.
    std::vector<float> pit(9, 1.0f);
    pit[4] = 0.0f;
    ConvexRows(pit.data(), 3, 3, gain, 0, 2, out.data());
    EXPECT_EQ(out[4], 0.5f - 4.0f * gain);
    ConvexRows(pit.data(), 3, 3, 0.0f, 0, 2, out.data());
    for (float v : out) EXPECT_EQ(v, 0.5f);
}

TEST(ConvexKernel, RowsAreTheClampedWindowOfEverySample) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (const auto& [w, h] : {std::pair{1, 1}, {1, 6}, {7, 1}, {2, 2}, {13, 9}}) {
        std::vector<float> t(static_cast<size_t>(w) * h);
        for (float& v : t) v = u(rng);
        std::vector<float> got(t.size(), -1.0f), want(t.size());
        ConvexRows(t.data(), w, h, 37.5f, 0, h - 1, got.data());
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) {
                const Orogen::Window n =
                    Orogen::WindowAt(t.data(), w, h, x, y, Orogen::EdgeRule::Clamped);
                want[static_cast<size_t>(y) * w + x] =
                    0.5f - 37.5f * ((n.e - 2.0f * n.c + n.w) + (n.s - 2.0f * n.c + n.n));
            }
        EXPECT_EQ(std::memcmp(got.data(), want.data(), t.size() * sizeof(float)), 0)
            << w << "x" << h;
    }
}

}  // namespace
}  // namespace basekit
