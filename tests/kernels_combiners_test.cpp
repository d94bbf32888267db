// Combine and arithmetic kernels on every vector path against the methods
// written out sample by sample, on values in and out of range, NaN and zero
// included, and rows done in pieces against rows done at once.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "devices/combiners/CombineKernels.h"
#include "framework/PortableMath.h"
#include "framework/PowLanes.h"
#include "framework/VectorDispatch.h"

namespace basekit {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

std::vector<VectorPath> Paths() {
    std::vector<VectorPath> paths;
    for (VectorPath p : {VectorPath::Plain, VectorPath::Avx2, VectorPath::Avx512})
        if (PathAvailable(p)) paths.push_back(p);
    return paths;
}

// Mostly 0..1, some beyond on either side, a few zeros and NaNs.
std::vector<float> Values(size_t count, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-0.25f, 1.25f);
    std::vector<float> v(count);
    for (size_t i = 0; i < count; ++i) v[i] = i % 17 == 3 ? 0.0f : i % 29 == 5 ? kNaN : u(rng);
    return v;
}

// Bit for bit, but any NaN matches any NaN: an image keeps its NaNs, and
// which payload an operation passes on is the processor's business.
bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::memcmp(&a[i], &b[i], sizeof(float)) != 0 && !(a[i] != a[i] && b[i] != b[i]))
            return false;
    return true;
}

float Height(float v) {
    return v != v ? 1.0f : v < 0.0f ? 0.0f : v > 1.0f ? 1.0f : v;
}
float Channel(float v) {
    return v < 0.0f ? 0.0f : v > 1.0f ? 1.0f : v;
}

using Formula = std::function<float(float a, float b, float s)>;

// The methods as the device's documentation gives them.
const Formula kMethods[] = {
    [](float a, float b, float s) { return (1 - s) * a + s * b; },
    [](float a, float b, float s) { return a + s * b; },
    [](float a, float b, float s) { return a - s * b; },
    [](float a, float b, float s) { return s * a * b + (1 - s) * a; },
    [](float a, float b, float s) { return (1 - s) * a + s * (a > b ? a : b); },
    [](float a, float b, float s) { return (1 - s) * a + s * (b > a ? a : b); },
    [](float a, float b, float s) { return Orogen::Pow(a, 4 * s * b + 1); },
    [](float a, float b, float s) { return Orogen::Pow(a, 1 - 0.999f * s * b); },
    [](float a, float b, float s) { return a + s * (b - 0.5f); },
    [](float a, float b, float s) {
        return static_cast<float>(std::fabs(static_cast<double>(a - s * b)));
    },
    [](float a, float b, float s) { return a + s * ((1 - (1 - b) * (1 - a)) - a); },
    [](float a, float b, float s) {
        if (!(b > 0)) return 1.0f;
        const float q = a / b;
        return q > 1 ? s * (Orogen::Log(q) + 1) : s * q;
    },
};

// Heights and images by method, and the arithmetic combiner, whose addition
// and subtraction are the Add and Subtract formulas.
TEST(CombineKernels, EveryMethodOnBothPathsFollowsItsFormula) {
    enum Kind { kHeights, kImages, kArithmetic };
    const int32_t width = 37, height = 11;
    for (Kind kind : {kHeights, kImages, kArithmetic}) {
        const int32_t channels = kind == kImages ? 3 : 1;
        const size_t count = static_cast<size_t>(width * height * channels);
        const std::vector<float> a = Values(count, 7), b = Values(count, 8);
        for (int32_t method = -1; method <= 12; ++method) {
            for (float s : {0.0f, 0.35f, 1.0f}) {
                SCOPED_TRACE("kind " + std::to_string(kind) + ", method " + std::to_string(method) +
                             ", strength " + std::to_string(s));
                const int32_t last = kind == kHeights ? 11 : kind == kImages ? 10 : 1;
                const bool known = method >= 0 && method <= last;
                const int32_t formula = kind == kArithmetic ? method + 1 : method;
                std::vector<float> expected(count);
                for (size_t i = 0; i < count; ++i) {
                    const float r = known ? kMethods[formula](a[i], b[i], s) : a[i];
                    expected[i] = kind == kImages ? Channel(r) : Height(r);
                }
                for (VectorPath path : Paths()) {
                    // All rows at once, then in pieces of a few rows.
                    std::vector<float> whole = a, pieces = a;
                    const CombinePlane all{whole.data(), b.data(), width, channels};
                    const CombinePlane cut{pieces.data(), b.data(), width, channels};
                    auto run = [&](const CombinePlane& p, int32_t first, int32_t last) {
                        if (kind == kHeights)
                            CombineHeightRows(p, method, s, first, last, path);
                        else if (kind == kImages)
                            CombineImageRows(p, method, s, first, last, path);
                        else
                            ArithmeticRows(p, method, s, first, last, path);
                    };
                    run(all, 0, height - 1);
                    for (int32_t first = 0; first < height; first += 4)
                        run(cut, first, std::min(first + 3, height - 1));
                    EXPECT_TRUE(SameBits(whole, expected)) << VectorPathName(path);
                    EXPECT_TRUE(SameBits(pieces, expected)) << VectorPathName(path);
                }
            }
        }
    }
}

// Power and Root take most pairs through their own lanes of Pow: the same
// bits as Orogen::Pow, over bases from subnormal to huge and exponents from
// tiny to past the lanes' range, whole ones included.
TEST(CombineKernels, PowerAndRootGivePowsBitsOverWideRanges) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> scale(-40.0f, 40.0f);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    const int32_t width = 512, height = 64;
    std::vector<float> a(width * height), b(width * height);
    for (size_t i = 0; i < a.size(); ++i) {
        a[i] = i % 7 == 0 ? unit(rng) : std::ldexp(unit(rng), static_cast<int>(scale(rng) * 3.5f));
        b[i] = i % 11 == 0 ? std::round(scale(rng))
                           : std::ldexp(scale(rng), static_cast<int>(scale(rng) / 2));
    }
    // The lanes alone, unclamped, where they claim the pair.
    struct Tag {};
    size_t claimed = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        bool ok;
        const float lane = Orogen::PowLane<Tag>(a[i], b[i], ok);
        if (!ok) continue;
        ++claimed;
        const float pow = Orogen::Pow(a[i], b[i]);
        ASSERT_EQ(std::memcmp(&lane, &pow, sizeof lane), 0) << a[i] << " ^ " << b[i];
    }
    EXPECT_GT(claimed, a.size() / 3);
    for (int32_t method : {kCombinePower, kCombineRoot}) {
        for (float s : {0.3f, 1.0f}) {
            std::vector<float> expected(a.size());
            for (size_t i = 0; i < a.size(); ++i)
                expected[i] = Height(kMethods[method](a[i], b[i], s));
            for (VectorPath path : Paths()) {
                std::vector<float> out = a;
                CombineHeightRows({out.data(), b.data(), width, 1}, method, s, 0, height - 1, path);
                EXPECT_TRUE(SameBits(out, expected))
                    << "method " << method << ", strength " << s << ", " << VectorPathName(path);
            }
        }
    }
}

}  // namespace
}  // namespace basekit
