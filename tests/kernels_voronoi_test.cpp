// Cellular search and row kernel against a plain rendering of the search,
// written here independently of the kernel, plus the invariants of its output.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ReferenceKernels.h"
#include "devices/generators/CellularTex.h"
#include "framework/VectorDispatch.h"

namespace basekit {
namespace {

using namespace reference;

uint64_t Bits(double v) { return std::bit_cast<uint64_t>(v); }
uint32_t Bits(float v) { return std::bit_cast<uint32_t>(v); }

// Points that stress the floor and the cube borders: arbitrary (near and
// far), whole, just either side of whole, negative, and exactly on feature
// points' cube faces.
std::vector<double> AwkwardCoordinates(std::mt19937& rng, int n) {
    std::uniform_real_distribution<double> any(-40.0, 40.0), far(-1000.0, 1000.0);
    std::uniform_int_distribution<int> whole(-20, 20);
    std::vector<double> v;
    for (int i = 0; i < n; ++i) {
        switch (i % 6) {
            case 0: v.push_back(any(rng)); break;
            case 5: v.push_back(far(rng)); break;
            case 1: v.push_back(whole(rng)); break;
            case 2: v.push_back(std::nextafter(static_cast<double>(whole(rng)), -100.0)); break;
            case 3: v.push_back(std::nextafter(static_cast<double>(whole(rng)), 100.0)); break;
            default: v.push_back(whole(rng) + 0.5); break;
        }
    }
    std::shuffle(v.begin(), v.end(), rng);
    return v;
}

const uint32_t kSeeds[] = {0u, 1u, 4711u, 32767u, 0x9E3779B9u};
const CellDistance kDistances[] = {CellDistance::Euclidean, CellDistance::Manhattan,
                                   CellDistance::Alternate1, CellDistance::Alternate2};

TEST(CellularSearch, MatchesReferenceBitForBit) {
    std::mt19937 rng(12);
    for (CellDistance m : kDistances) {
        for (uint32_t seed : kSeeds) {
            auto xs = AwkwardCoordinates(rng, 400), ys = AwkwardCoordinates(rng, 400),
                 zs = AwkwardCoordinates(rng, 400);
            for (size_t i = 0; i < xs.size(); ++i) {
                CellularResult want = RefSearch(xs[i], ys[i], zs[i], seed, static_cast<int>(m));
                CellularResult got = CellularSearch(xs[i], ys[i], zs[i], seed, m);
                for (int k = 0; k < 4; ++k) {
                    ASSERT_EQ(Bits(got.f[k]), Bits(want.f[k]))
                        << "distance " << static_cast<int>(m) << " seed " << seed << " point ("
                        << xs[i] << ", " << ys[i] << ", " << zs[i] << ") F" << k + 1;
                    ASSERT_EQ(got.id[k], want.id[k]);
                }
            }
        }
    }
}

// The first two feature points of cube (0, 0, 0) for `seed`, when it has two.
bool FirstTwoPoints(uint32_t seed, double a[3], double b[3], uint32_t ids[2]) {
    if (kRefCounts[seed >> 24] - '0' < 2) return false;
    uint32_t r = 1402024253u * seed + 586950981u;
    for (int p = 0; p < 2; ++p) {
        double* q = p == 0 ? a : b;
        ids[p] = r;
        q[0] = (RefStep(r) + 0.5) * 2.3283064365386963e-10;
        q[1] = (RefStep(RefStep(r)) + 0.5) * 2.3283064365386963e-10;
        q[2] = (RefStep(RefStep(RefStep(r))) + 0.5) * 2.3283064365386963e-10;
        r = RefStep(RefStep(RefStep(RefStep(r))));
    }
    return true;
}

// Seed 0 puts cube (0, 0, 0)'s hash at 0: its first point is at distance 0
// from itself.
TEST(CellularSearch, FeaturePointItselfIsAtDistanceZero) {
    double a[3], b[3];
    uint32_t ids[2];
    ASSERT_TRUE(FirstTwoPoints(0u, a, b, ids));
    for (CellDistance m : kDistances) {
        CellularResult r = CellularSearch(a[0], a[1], a[2], 0u, m);
        EXPECT_EQ(r.f[0], 0.0) << static_cast<int>(m);
        EXPECT_EQ(r.id[0], 586950981u) << static_cast<int>(m);
        EXPECT_GT(r.f[1], 0.0);
    }
}

TEST(CellularSearch, EqualDistancesKeepTheOrderOfDiscovery) {
    // Point coordinates have at most 33 significant bits, so the midpoint of
    // two points is exact and both lie at exactly the same distance from it.
    // The one found first must stay first.
    int tested = 0;
    for (uint32_t seed = 0; seed < 4000 && tested < 20; ++seed) {
        double a[3], b[3];
        uint32_t ids[2];
        if (!FirstTwoPoints(seed, a, b, ids)) continue;
        const double P[3] = {(a[0] + b[0]) * 0.5, (a[1] + b[1]) * 0.5, (a[2] + b[2]) * 0.5};
        for (CellDistance m : kDistances) {
            CellularResult want = RefSearch(P[0], P[1], P[2], seed, static_cast<int>(m));
            if (want.f[0] != want.f[1] || want.id[0] != ids[0] || want.id[1] != ids[1]) continue;
            CellularResult got = CellularSearch(P[0], P[1], P[2], seed, m);
            EXPECT_EQ(got.f[0], got.f[1]);
            EXPECT_EQ(got.id[0], ids[0]) << "seed " << seed << " distance " << static_cast<int>(m);
            EXPECT_EQ(got.id[1], ids[1]);
            if ((ids[0] >> 24) == (ids[1] >> 24)) continue;
            // The same through the row kernel, whose cell style shows the order.
            const double wx = P[0], wy = P[1];
            CellularRowSetup s;
            s.width = s.height = 1;
            s.worldX = &wx;
            s.worldY = &wy;
            s.shape = P[2];
            s.distance = m;
            s.seed = seed;
            s.style = kCellF1Cells;
            for (VectorPath path : AvailablePaths()) {
                float v = -1.0f;
                CellularRows(s, 0, 0, nullptr, &v, path);
                EXPECT_EQ(v, static_cast<float>((ids[0] >> 24) / 255.0)) << VectorPathName(path);
            }
            ++tested;
        }
    }
    EXPECT_GE(tested, 10);
}

// A grid's column and row positions.
struct World {
    std::vector<double> x, y;
    World(int width, int height, double x0 = -3.25, double x1 = 5.5, double y0 = -1.0,
          double y1 = 2.75)
        : x(Positions(x0, x1, width)), y(Positions(y0, y1, height)) {}
};

CellularRowSetup MakeSetup(const World& world, int style, CellDistance m, uint32_t seed) {
    CellularRowSetup s;
    s.width = static_cast<int>(world.x.size());
    s.height = static_cast<int>(world.y.size());
    s.worldX = world.x.data();
    s.worldY = world.y.data();
    s.anchorX = 0.625;
    s.anchorY = -0.5;
    s.scale = 1.0 / 0.37;
    s.shape = -0.75;
    s.distortX = std::cos(0.7) * 0.4;
    s.distortY = std::sin(0.7) * 0.4;
    s.style = style;
    s.distance = m;
    s.seed = seed;
    return s;
}

std::vector<float> RandomHeights(int n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> h(0.0f, 1.0f);
    std::vector<float> v(n);
    for (float& x : v) x = h(rng);
    return v;
}

// Expected search result at a sample position. The reference's integer floor
// knows no NaN; there the plain search's answer is the one every path gives.
CellularResult Expected(double X, double Y, double Z, uint32_t seed, CellDistance m) {
    if (std::isnan(X) || std::isnan(Y)) return CellularSearch(X, Y, Z, seed, m);
    return RefSearch(X, Y, Z, seed, static_cast<int>(m));
}

enum class Heights { kNone, kRandom, kWithNaN };

// Fields whose every sample, on every path, in every style, must match the
// reference bit for bit. The cases reach each way the row kernel searches.
struct PathCase {
    const char* name;
    int width, height;
    double x0, x1, y0, y1, scale;
    Heights heights;
};

const PathCase kPathCases[] = {
    // Many samples per cube: long runs sharing a home cube.
    {"coarse", 300, 20, -8.0, 8.0, -3.0, 3.0, 1.0, Heights::kNone},
    // Few samples per cube, whole-numbered positions on every fourth sample.
    {"fine", 257, 19, -32.0, 32.0, 0.0, 4.5, 1.0, Heights::kNone},
    // Eight or nine samples per cube: short runs searched alone and in pairs.
    {"eight per cube", 203, 9, -12.0, 13.0, 0.5, 2.5, 1.0, Heights::kNone},
    // Odd widths leave every remainder after the vector blocks.
    {"narrow", 13, 35, -1.0, 2.0, -5.0, -4.0, 2.5, Heights::kNone},
    {"single column", 1, 9, 2.0, 2.0, -1.0, 1.0, 3.0, Heights::kNone},
    {"single sample", 1, 1, -3.25, -3.25, -1.0, -1.0, 2.7, Heights::kNone},
    {"distorted", 131, 21, -4.0, 4.0, -4.0, 4.0, 1.7, Heights::kRandom},
    {"NaN heights", 40, 3, -3.25, 5.5, -1.0, 2.75, 2.7, Heights::kWithNaN},
    // Every sample in a different cube: more cubes than the shared box holds.
    {"sparse", 520, 3, -5000.0, 5000.0, 0.0, 30.0, 3.1, Heights::kNone},
    {"sparse distorted", 67, 3, -5000.0, 5000.0, 0.0, 30.0, 3.1, Heights::kRandom},
};

TEST(CellularRows, EveryPathAndStyleMatchesReference) {
    for (const PathCase& pc : kPathCases) {
        const int n = pc.width * pc.height;
        auto heights = RandomHeights(n, 9);
        if (pc.heights == Heights::kWithNaN) {
            heights[5] = std::nanf("");
            heights[pc.width + 17] = std::nanf("");
        }
        const float* h = pc.heights == Heights::kNone ? nullptr : heights.data();
        const World world(pc.width, pc.height, pc.x0, pc.x1, pc.y0, pc.y1);
        for (CellDistance m : kDistances) {
            CellularRowSetup s = MakeSetup(world, kCellF1, m, 77u + static_cast<uint32_t>(n));
            s.scale = pc.scale;
            std::vector<CellularResult> want(n);
            for (int j = 0; j < pc.height; ++j) {
                for (int i = 0; i < pc.width; ++i) {
                    double X = (world.x[i] - s.anchorX) * s.scale;
                    double Y = (world.y[j] - s.anchorY) * s.scale;
                    if (h != nullptr) {
                        X = X + h[j * pc.width + i] * s.distortX;
                        Y = Y + h[j * pc.width + i] * s.distortY;
                    }
                    want[j * pc.width + i] = Expected(X, Y, s.shape, s.seed, m);
                }
            }
            // A NaN Euclidean distance is never nearer: nothing is found.
            if (pc.heights == Heights::kWithNaN && m == CellDistance::Euclidean) {
                EXPECT_EQ(want[5].f[0], 999999.9);
            }
            for (VectorPath path : AvailablePaths()) {
                for (int style = 0; style < kCellStyleCount; ++style) {
                    s.style = style;
                    std::vector<float> got(n);
                    CellularRows(s, 0, pc.height - 1, h, got.data(), path);
                    for (int i = 0; i < n; ++i)
                        ASSERT_EQ(Bits(got[i]), Bits(RefStyle(want[i], style)))
                            << pc.name << ", " << VectorPathName(path) << ", style " << style
                            << ", distance " << static_cast<int>(m) << ", sample " << i;
                }
            }
        }
    }
}

TEST(CellularRows, VectorPathsMatchPlainAtTheEndsOfTheCubeRange) {
    // Cube coordinates at the ends of the 32-bit range, where neighbours wrap
    // (beyond the reference's integers): the vector paths follow the plain one.
    const int W = 40, H = 4;
    const World world(W, H, 2147483600.0, 2147483690.0, -2147483690.0, -2147483600.0);
    for (CellDistance m : kDistances) {
        for (int style : {kCellF1, kCellF4MinusF1, kCellF1Cells, kCellF4Cells}) {
            CellularRowSetup s = MakeSetup(world, style, m, 77u + style);
            s.scale = 1.0;
            std::vector<float> plain(W * H), fast(W * H);
            CellularRows(s, 0, H - 1, nullptr, plain.data(), VectorPath::Plain);
            for (VectorPath path : AvailablePaths()) {
                CellularRows(s, 0, H - 1, nullptr, fast.data(), path);
                for (int i = 0; i < W * H; ++i)
                    ASSERT_EQ(Bits(fast[i]), Bits(plain[i]))
                        << VectorPathName(path) << ", style " << style << ", distance "
                        << static_cast<int>(m) << ", sample " << i;
            }
        }
    }
}

TEST(CellularRows, RowRangesComposeTheWholeField) {
    // Bands split anywhere (as threads would) give the same field as one call.
    const int W = 70, H = 41;
    const World world(W, H);
    CellularRowSetup s = MakeSetup(world, kCellF2MinusF1, CellDistance::Manhattan, 3u);
    for (VectorPath path : AvailablePaths()) {
        std::vector<float> whole(W * H), parts(W * H, -1.0f);
        CellularRows(s, 0, H - 1, nullptr, whole.data(), path);
        const int cuts[] = {0, 1, 7, 23, 24, H};
        for (size_t k = 0; k + 1 < std::size(cuts); ++k)
            CellularRows(s, cuts[k], cuts[k + 1] - 1, nullptr, parts.data(), path);
        EXPECT_EQ(whole, parts) << VectorPathName(path);
        // Rows outside the field are ignored; nothing is written.
        std::vector<float> none(W * H, -1.0f);
        CellularRows(s, H, H + 5, nullptr, none.data(), path);
        CellularRows(s, 5, 4, nullptr, none.data(), path);
        EXPECT_EQ(std::count(none.begin(), none.end(), -1.0f), W * H) << VectorPathName(path);
    }
}

}  // namespace
}  // namespace basekit
