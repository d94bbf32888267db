// Ramp, Expander, Equalizer, Bias/Gain, Add Noise, Height Splitter and
// Probability kernels against values worked out by hand or by brute force,
// and the sample hash against values computed apart from the code.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "devices/filters/AddNoise.h"
#include "devices/filters/BiasGain.h"
#include "devices/filters/Equalizer.h"
#include "devices/filters/Expander.h"
#include "devices/filters/HeightSplitter.h"
#include "devices/filters/ProbScatter.h"
#include "devices/filters/Ramp.h"
#include "framework/PortableMath.h"
#include "framework/PowLanes.h"
#include "framework/SampleHash.h"
#include "framework/VectorDispatch.h"

namespace basekit {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

std::vector<float> Random(size_t count, uint32_t seed, float lo = 0.0f, float hi = 1.0f) {
    std::vector<float> v(count);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(lo, hi);
    for (float& x : v) x = u(rng);
    return v;
}

using Floats = std::vector<float>;

bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

TEST(SampleHash, MatchesValuesComputedApart) {
    const struct {
        uint32_t seed, x, y, hash;
    } cases[] = {{0, 0, 0, 0},
                 {1, 0, 0, 0x205F0435u},
                 {7, 3, 5, 0x0DB85E7Au},
                 {32767, 1024, 4095, 0x525A654Bu},
                 {7 ^ kSecondStream, 3, 5, 0xF7EFCCDCu}};
    for (const auto& c : cases) {
        EXPECT_EQ(SampleHash(c.seed, c.x, c.y), c.hash) << c.seed << " " << c.x << " " << c.y;
        EXPECT_EQ(SampleUniform(c.seed, c.x, c.y), static_cast<float>(c.hash >> 8) / 16777216.0f);
    }
    EXPECT_LT(SampleUniform(0xFFFFFFFFu, 0xFFFFFFFFu, 0), 1.0f);
}

TEST(OpenFilterKernels, RampMapsTheLevelsAndDefaultsAreTheIdentity) {
    const struct {
        float start, end;
        int32_t shape;
        float in, out;
    } cases[] = {
        {0.25f, 0.75f, kRampLinear, 0.5f, 0.5f},  {0.25f, 0.75f, kRampLinear, 0.375f, 0.25f},
        {0.25f, 0.75f, kRampLinear, 0.25f, 0.0f}, {0.25f, 0.75f, kRampLinear, 0.1f, 0.0f},
        {0.25f, 0.75f, kRampLinear, 0.9f, 1.0f},  {0.75f, 0.25f, kRampLinear, 0.375f, 0.75f},
        {0.75f, 0.25f, kRampLinear, 0.8f, 0.0f},  {0.5f, 0.5f, kRampLinear, 0.5f, 1.0f},
        {0.5f, 0.5f, kRampLinear, 0.4999f, 0.0f}, {0.0f, 1.0f, kRampSmooth, 0.25f, 0.15625f},
        {0.0f, 1.0f, kRampSmooth, 0.5f, 0.5f},    {0.0f, 0.5f, kRampSmooth, 0.375f, 0.84375f},
        {0.0f, 1.0f, kRampLinear, kNaN, 1.0f},    {0.5f, 0.5f, kRampSmooth, kNaN, 0.0f},
        {0.0f, 1.0f, kRampLinear, -0.5f, 0.0f},   {0.0f, 1.0f, kRampLinear, 1.5f, 1.0f},
    };
    for (const auto& c : cases) {
        float v = c.in;
        RampSamples(&v, 1, c.start, c.end, c.shape);
        EXPECT_EQ(v, c.out) << c.start << ".." << c.end << " shape " << c.shape << " at " << c.in;
    }
    std::vector<float> field = Random(4096, 1);
    const std::vector<float> in = field;
    RampSamples(field.data(), field.size(), 0.0f, 1.0f, kRampLinear);
    EXPECT_TRUE(SameBits(field, in));
}

TEST(OpenFilterKernels, ExpanderStretchesTheRangeLeavingNaNOut) {
    const struct {
        const char* name;
        std::vector<float> in;
        float low, high;
        std::vector<float> out;
    } cases[] = {
        {"stretch", {0.25f, 0.5f, kNaN, 0.75f}, 0.0f, 1.0f, {0.0f, 0.5f, 1.0f, 1.0f}},
        {"into a band", {0.25f, 0.5f, 0.75f}, 0.5f, 0.75f, {0.5f, 0.625f, 0.75f}},
        {"inverted", {0.0f, 0.25f, 1.0f}, 1.0f, 0.0f, {1.0f, 0.75f, 0.0f}},
        {"flat", {0.3f, 0.3f}, 0.625f, 1.0f, {0.625f, 0.625f}},
        {"all NaN", {kNaN, kNaN}, 0.25f, 1.0f, {0.25f, 0.25f}},
        {"out of range", {-1.0f, 0.0f, 3.0f}, 0.0f, 1.0f, {0.0f, 0.25f, 1.0f}},
    };
    for (const auto& c : cases) {
        std::vector<float> v = c.in;
        ExpandSamples(v.data(), v.size(), FindHeightRange(v.data(), v.size()), c.low, c.high);
        EXPECT_EQ(v, c.out) << c.name;
    }
    // A field that holds 0 and 1 comes back as it was; ranges of parts add up
    // to the range of the whole.
    std::vector<float> field = Random(5000, 2);
    field[17] = 0.0f;
    field[4000] = 1.0f;
    const std::vector<float> in = field;
    HeightRange parts = FindHeightRange(field.data(), 2500);
    parts.Add(FindHeightRange(field.data() + 2500, 2500));
    parts.Add(FindHeightRange(field.data(), 0));
    const HeightRange whole = FindHeightRange(field.data(), field.size());
    EXPECT_EQ(parts.lowest, 0.0f);
    EXPECT_EQ(parts.highest, 1.0f);
    EXPECT_EQ(whole.lowest, 0.0f);
    EXPECT_FALSE(FindHeightRange(field.data(), 0).Found());
    ExpandSamples(field.data(), field.size(), whole, 0.0f, 1.0f);
    EXPECT_TRUE(SameBits(field, in));
}

// q by counting, the way the rank is defined.
std::vector<float> BruteForceEqualize(std::vector<float> v, float strength) {
    for (float& h : v) h = std::isnan(h) ? 1.0f : std::clamp(h, 0.0f, 1.0f);
    if (v.size() <= 1) return v;
    std::vector<float> out(v.size());
    for (size_t i = 0; i < v.size(); ++i) {
        size_t below = 0, equal = 0;
        for (float h : v) below += h < v[i], equal += h == v[i];
        const float q = static_cast<float>((below + (equal - 1) / 2.0) / (v.size() - 1.0));
        out[i] = std::clamp(v[i] + strength * (q - v[i]), 0.0f, 1.0f);
    }
    return out;
}

TEST(OpenFilterKernels, EqualizerRanksExactlyAndKeepsTiesTogether) {
    // Many ties (values on a coarse grid), NaN, -0 beside 0, values outside 0..1.
    std::vector<float> ties = Random(3000, 3);
    for (float& h : ties) h = std::floor(h * 37.0f) / 36.0f;
    ties[0] = kNaN;
    ties[1] = -0.0f;
    ties[2] = 0.0f;
    ties[3] = -2.0f;
    ties[4] = 1.5f;
    const struct {
        const char* name;
        std::vector<float> in;
        float strength;
    } cases[] = {
        {"ties", ties, 1.0f},
        {"ties half way", ties, 0.5f},
        {"strength 0 only clamps", ties, 0.0f},
        {"distinct", Random(2000, 4), 1.0f},
        {"two", {0.7f, 0.2f}, 1.0f},
        {"one", {1.5f}, 1.0f},
        {"empty", {}, 1.0f},
    };
    for (const auto& c : cases) {
        std::vector<float> v = c.in;
        EqualizeSamples(v.data(), v.size(), c.strength);
        EXPECT_EQ(v, BruteForceEqualize(c.in, c.strength)) << c.name;
    }
    // Unique extremes go to 0 and 1; equal heights stay equal; a constant
    // field goes to the middle.
    std::vector<float> v = ties;
    EqualizeSamples(v.data(), v.size(), 1.0f);
    for (size_t i = 0; i < v.size(); ++i)
        for (size_t j : {size_t{5}, size_t{6}, size_t{7}})
            if (ties[i] == ties[j]) {
                EXPECT_EQ(v[i], v[j]);
            }
    std::vector<float> spread = {0.4f, 0.1f, 0.2f, 0.3f};
    EqualizeSamples(spread.data(), spread.size(), 1.0f);
    const float ranks[] = {1.0f, 0.0f, 1.0f / 3.0f, 2.0f / 3.0f};
    for (size_t i = 0; i < 4; ++i) EXPECT_NEAR(spread[i], ranks[i], 6e-8f) << i;
    EXPECT_EQ(spread[1], 0.0f);
    std::vector<float> flat(9, 0.8f);
    EqualizeSamples(flat.data(), flat.size(), 1.0f);
    EXPECT_EQ(flat, std::vector<float>(9, 0.5f));
}

TEST(OpenFilterKernels, BiasAndGainCurves) {
    // ln 0.25 / ln 0.5 is 2 exactly: squares, correctly rounded.
    auto square = [](float t) { return static_cast<float>(static_cast<double>(t) * t); };
    const struct {
        float bias, gain, in, out;
    } cases[] = {
        {0.25f, 0.5f, 0.5f, 0.25f},   {0.25f, 0.5f, 0.3f, square(0.3f)},
        {0.5f, 0.75f, 0.25f, 0.125f},  // (2t)^2 / 2
        {0.5f, 0.75f, 0.75f, 0.875f},  // 1 - (2 - 2t)^2 / 2
        {0.5f, 0.75f, 0.5f, 0.5f},    {0.25f, 0.75f, 0.5f, 0.125f},
        {0.0f, 0.0f, 0.0f, 0.0f},     {0.0f, 0.0f, 1.0f, 1.0f},
        {1.0f, 1.0f, 0.0f, 0.0f},     {0.3f, 0.6f, kNaN, 1.0f},
        {0.3f, 0.6f, -0.5f, 0.0f},    {0.5f, 0.5f, 1.5f, 1.0f},
    };
    for (const auto& c : cases) {
        float v = c.in;
        BiasGainSamples(&v, 1, MakeBiasGainCurve(c.bias, c.gain));
        EXPECT_EQ(v, c.out) << c.bias << " " << c.gain << " at " << c.in;
    }
    // Against the curves written out with Orogen::Pow, on odd powers.
    auto bias = [](float p, float t) { return t == 0.0f ? 0.0f : Pow(t, p); };
    for (const auto& [b, g] : {std::pair{0.3f, 0.7f}, std::pair{0.85f, 0.1f}}) {
        const BiasGainCurve curve = MakeBiasGainCurve(b, g);
        Floats v = Random(3001, 12, -0.1f, 1.1f);
        const Floats in = v;
        BiasGainSamples(v.data(), v.size(), curve);
        for (size_t i = 0; i < in.size(); ++i) {
            const float t = bias(curve.biasPower, std::clamp(in[i], 0.0f, 1.0f));
            const float r = t < 0.5f ? bias(curve.gainPower, 2.0f * t) / 2.0f
                                     : 1.0f - bias(curve.gainPower, 2.0f - 2.0f * t) / 2.0f;
            ASSERT_EQ(v[i], std::clamp(r, 0.0f, 1.0f)) << b << " " << g << " at " << in[i];
        }
    }
    // The ends of the range are kept off 0 and 1: finite powers.
    const BiasGainCurve steep = MakeBiasGainCurve(0.0f, 1.0f);
    EXPECT_EQ(steep.biasPower, Log(0.001f) / Log(0.5f));
    EXPECT_EQ(steep.gainPower, steep.biasPower);
    EXPECT_EQ(MakeBiasGainCurve(1.0f, 0.0f).biasPower, Log(0.999f) / Log(0.5f));
    // Defaults: the identity; bias above 0.5 raises every inner value.
    std::vector<float> field = Random(4096, 5);
    std::vector<float> raised = field;
    const std::vector<float> in = field;
    BiasGainSamples(field.data(), field.size(), MakeBiasGainCurve(0.5f, 0.5f));
    EXPECT_TRUE(SameBits(field, in));
    BiasGainSamples(raised.data(), raised.size(), MakeBiasGainCurve(0.8f, 0.5f));
    for (size_t i = 0; i < in.size(); ++i)
        if (in[i] > 0.0f && in[i] < 1.0f) {
            EXPECT_GT(raised[i], in[i]);
        }
}

TEST(OpenFilterKernels, NoiseStaysInItsBoundsWithTheExpectedSpread) {
    const int32_t width = 256, rows = 256;
    for (int32_t type : {kNoiseUniform, kNoiseGaussian}) {
        double sum = 0.0, squares = 0.0;
        float least = 2.0f, most = -2.0f;
        for (int32_t y = 0; y < rows; ++y)
            for (int32_t x = 0; x < width; ++x) {
                const float n = SampleNoise(11, x, y, type);
                sum += n, squares += n * n;
                least = std::min(least, n), most = std::max(most, n);
            }
        const double count = width * rows, mean = sum / count;
        const double deviation = std::sqrt(squares / count - mean * mean);
        SCOPED_TRACE(type);
        EXPECT_GE(least, -1.0f);
        // The Gaussian's cut reaches 1; uniform noise stays below it.
        EXPECT_LE(most, 1.0f);
        if (type == kNoiseUniform) {
            EXPECT_LT(most, 1.0f);
        }
        EXPECT_NEAR(mean, 0.0, 0.01);
        // Uniform on -1..1: 1/sqrt(3); the normal cut at 3 sigma over 3: about 1/3.
        EXPECT_NEAR(deviation, type == kNoiseUniform ? 0.57735 : 0.3326, 0.01);
    }
    // The lanes of the Gaussian row against Orogen::Log and Orogen::Cos, over
    // a sweep of the 2^24 values a uniform takes.
    for (uint32_t k = 0; k < (1u << 24); k += 7) {
        const float u = static_cast<float>(k) * 0x1p-24f;
        ASSERT_EQ(CosLane<VectorPath>(6.2831855f * u), Cos(6.2831855f * u)) << k;
        ASSERT_EQ(static_cast<float>(LogLane<VectorPath>(static_cast<double>(1.0f - u))),
                  Log(1.0f - u))
            << k;
    }
    // Row kernel: at most Amount away, clamped, the same bits for the same seed.
    std::vector<float> row = Random(500, 6, 0.2f, 0.8f), again = row;
    const std::vector<float> in = row;
    AddNoiseRow(row.data(), 500, 9, 77, 0.1f, kNoiseGaussian);
    AddNoiseRow(again.data(), 500, 9, 77, 0.1f, kNoiseGaussian);
    EXPECT_TRUE(SameBits(row, again));
    for (size_t x = 0; x < in.size(); ++x) {
        EXPECT_LE(std::fabs(row[x] - in[x]), 0.1f + 1e-6f);
        EXPECT_EQ(row[x], in[x] + 0.1f * SampleNoise(77, static_cast<uint32_t>(x), 9, 1));
    }
    std::vector<float> edge = {0.0f, 1.0f, kNaN};
    AddNoiseRow(edge.data(), 3, 0, 5, 0.0f, kNoiseUniform);
    EXPECT_EQ(edge, (std::vector<float>{0.0f, 1.0f, 1.0f}));
}

TEST(OpenFilterKernels, SplitPartsAddUpAndTheMaskRisesAtTheSplit) {
    std::vector<float> in = Random(5000, 7);
    in[0] = 0.5f;
    in[1] = 0.45f;
    in[2] = 0.55f;
    std::vector<float> lower(in.size()), upper(in.size()), mask(in.size());
    for (float transition : {0.0f, 0.1f}) {
        lower = in;
        SplitSamples(lower.data(), upper.data(), mask.data(), in.size(), 0.5f, transition);
        SCOPED_TRACE(transition);
        for (size_t i = 0; i < in.size(); ++i) {
            EXPECT_EQ(lower[i], std::min(in[i], 0.5f));
            EXPECT_EQ(upper[i], std::max(in[i] - 0.5f, 0.0f));
            EXPECT_NEAR(lower[i] + upper[i], in[i], 6e-8f);
            if (in[i] <= 0.5f) {
                EXPECT_EQ(lower[i] + upper[i], in[i]);
            }
        }
        EXPECT_EQ(mask[0], transition == 0.0f ? 1.0f : 0.5f);
        EXPECT_EQ(mask[1], 0.0f);
        EXPECT_EQ(mask[2], 1.0f);
    }
    // In place: lower over the input.
    std::vector<float> field = {0.2f, 0.9f, kNaN};
    SplitSamples(field.data(), upper.data(), mask.data(), 3, 0.6f, 0.2f);
    EXPECT_EQ(field, (std::vector<float>{0.2f, 0.6f, 1.0f}));
    EXPECT_EQ(upper[1], 0.9f - 0.6f);
    EXPECT_EQ(mask[0], 0.0f);
    EXPECT_EQ(mask[1], 1.0f);
}

// Samples set to 1, as world positions from the extent's corner.
std::vector<std::pair<float, float>> PointsOf(const std::vector<float>& out,
                                              const ScatterField& f) {
    std::vector<std::pair<float, float>> points;
    for (int32_t y = 0; y < f.height; ++y)
        for (int32_t x = 0; x < f.width; ++x)
            if (out[static_cast<size_t>(y) * f.width + x] == 1.0f)
                points.emplace_back(x * f.extentX / (f.width - 1), y * f.extentY / (f.height - 1));
    return points;
}

TEST(OpenFilterKernels, ScatterKeepsItsSpacingAndItsPlaceInTheWorld) {
    // Every sample: the fraction of points follows the chance.
    std::vector<float> chance(300, 0.6f), out(300);
    int32_t hits = 0;
    for (int32_t y = 0; y < 200; ++y) {
        ScatterRow(chance.data(), out.data(), 300, y, 3, 0.5f);
        for (float v : out) hits += v == 1.0f;
    }
    EXPECT_NEAR(hits / 60000.0, 0.3, 0.01);
    ScatterRow(chance.data(), out.data(), 300, 0, 3, 0.0f);
    EXPECT_EQ(std::count(out.begin(), out.end(), 1.0f), 0);
    std::fill(chance.begin(), chance.end(), kNaN);  // counts as certain
    ScatterRow(chance.data(), out.data(), 300, 0, 3, 1.0f);
    EXPECT_EQ(std::count(out.begin(), out.end(), 1.0f), 300);

    // Spaced: the same points at three resolutions, each no closer than the
    // spacing less a sample's diagonal.
    const float d = 0.1f;
    std::vector<std::vector<std::pair<float, float>>> found;
    for (int32_t side : {201, 401, 1025}) {
        const std::vector<float> half(static_cast<size_t>(side) * side, 0.5f);
        const ScatterField f{half.data(), side, side, 4.0f, 3.0f};
        ASSERT_TRUE(SpacedScatterFits(f, d));
        std::vector<float> points(half.size(), 0.0f);
        ScatterSpaced(f, points.data(), d, 21, 1.0f);
        found.push_back(PointsOf(points, f));
        const float diagonal = std::hypot(4.0f / (side - 1), 3.0f / (side - 1));
        const auto& p = found.back();
        for (size_t a = 0; a < p.size(); ++a)
            for (size_t b = a + 1; b < p.size(); ++b)
                ASSERT_GE(std::hypot(p[a].first - p[b].first, p[a].second - p[b].second),
                          d - diagonal)
                    << side;
    }
    // About half of the 20 x 15 cells.
    EXPECT_NEAR(static_cast<double>(found[0].size()), 150.0, 30.0);
    // Each point within half a coarse and half a fine sample of where it lies
    // at 201 samples.
    for (size_t r = 1; r < found.size(); ++r) {
        ASSERT_EQ(found[r].size(), found[0].size());
        for (const auto& [x, y] : found[r]) {
            bool near = false;
            for (const auto& [x0, y0] : found[0])
                near = near || (std::fabs(x - x0) <= 0.02f && std::fabs(y - y0) <= 0.015f);
            EXPECT_TRUE(near) << x << ", " << y;
        }
    }
    // Candidates lie in the middle half of their cells.
    for (uint32_t i = 0; i < 50; ++i) {
        float x, y;
        ScatterCandidate(9, i, 2 * i, d, x, y);
        EXPECT_GE(x, (2 * i + 0.5f) * d);
        EXPECT_LT(x, (2 * i + 1.5f) * d);
        EXPECT_GE(y, (4 * i + 0.5f) * d);
        EXPECT_LT(y, (4 * i + 1.5f) * d);
    }
    // Cell (3, 5) of seed 7 from the hash values above: its x from the first
    // stream, its y from the second.
    float cx, cy;
    ScatterCandidate(7, 3, 5, 0.5f, cx, cy);
    EXPECT_EQ(cx, (6.5f + static_cast<float>(0x0DB85E7Au >> 8) * 0x1p-24f) * 0.5f);
    EXPECT_EQ(cy, (10.5f + static_cast<float>(0xF7EFCCDCu >> 8) * 0x1p-24f) * 0.5f);
    // A spacing far below a sample is refused.
    const std::vector<float> small(64, 1.0f);
    EXPECT_FALSE(SpacedScatterFits({small.data(), 8, 8, 4.0f, 4.0f}, 1e-4f));
    EXPECT_TRUE(SpacedScatterFits({small.data(), 8, 8, 4.0f, 4.0f}, 0.05f));
}

// Every vector path gives the plain loops' bits, ragged lengths, NaN and
// values outside 0..1 included.
TEST(OpenFilterKernels, VectorPathsGiveThePlainBits) {
    const VectorPath best = BestVectorPath();
    if (best == VectorPath::Plain) GTEST_SKIP() << "no vector path on this machine";
    Floats in = Random(1037, 8, -0.25f, 1.25f);
    in[3] = kNaN;
    in[500] = -0.0f;
    using Run = std::function<Floats(Floats, VectorPath)>;
    const struct {
        const char* name;
        Run run;
    } cases[] = {
        {"ramp",
         [](Floats v, VectorPath p) {
             RampSamples(v.data(), v.size(), 0.3f, 0.6f, kRampLinear, p);
             return v;
         }},
        {"ramp smooth falling",
         [](Floats v, VectorPath p) {
             RampSamples(v.data(), v.size(), 0.9f, 0.1f, kRampSmooth, p);
             return v;
         }},
        {"ramp step",
         [](Floats v, VectorPath p) {
             RampSamples(v.data(), v.size(), 0.4f, 0.4f, kRampSmooth, p);
             return v;
         }},
        {"range and expand",
         [](Floats v, VectorPath p) {
             const HeightRange range = FindHeightRange(v.data(), v.size(), p);
             ExpandSamples(v.data(), v.size(), range, 0.9f, 0.2f, p);
             v.push_back(range.lowest);
             v.push_back(range.highest);
             return v;
         }},
        {"split",
         [](Floats v, VectorPath p) {
             Floats upper(v.size()), mask(v.size());
             SplitSamples(v.data(), upper.data(), mask.data(), v.size(), 0.45f, 0.2f, p);
             v.insert(v.end(), upper.begin(), upper.end());
             v.insert(v.end(), mask.begin(), mask.end());
             return v;
         }},
        {"split hard",
         [](Floats v, VectorPath p) {
             Floats upper(v.size()), mask(v.size());
             SplitSamples(v.data(), upper.data(), mask.data(), v.size(), 0.45f, 0.0f, p);
             v.insert(v.end(), mask.begin(), mask.end());
             return v;
         }},
        {"uniform noise",
         [](Floats v, VectorPath p) {
             AddNoiseRow(v.data(), static_cast<int32_t>(v.size()), 41, 999, 0.3f, kNoiseUniform, p);
             return v;
         }},
        {"gaussian noise",
         [](Floats v, VectorPath p) {
             AddNoiseRow(v.data(), static_cast<int32_t>(v.size()), 3, 77, 0.4f, kNoiseGaussian, p);
             return v;
         }},
        {"scatter",
         [](Floats v, VectorPath p) {
             Floats out(v.size());
             ScatterRow(v.data(), out.data(), static_cast<int32_t>(v.size()), 12, 5, 0.7f, p);
             return out;
         }},
        {"bias/gain",
         [](Floats v, VectorPath p) {
             BiasGainSamples(v.data(), v.size(), MakeBiasGainCurve(0.2f, 0.65f), p);
             return v;
         }},
        {"bias/gain defaults",
         [](Floats v, VectorPath p) {
             BiasGainSamples(v.data(), v.size(), MakeBiasGainCurve(0.5f, 0.5f), p);
             return v;
         }},
    };
    for (const auto& c : cases) {
        const Floats plain = c.run(in, VectorPath::Plain);
        for (VectorPath path : {VectorPath::Avx2, best})
            EXPECT_TRUE(SameBits(c.run(in, path), plain)) << c.name << " " << VectorPathName(path);
    }
}

}  // namespace
}  // namespace basekit
