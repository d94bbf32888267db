// Combine kernels against the methods written out sample by sample, on
// values in and out of range, NaN and zero included, and rows done in pieces
// against rows done at once.

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

namespace basekit {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

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

TEST(CombineKernels, EveryMethodOnBothPathsFollowsItsFormula) {
    const int32_t width = 37, height = 11;
    for (int32_t channels : {1, 3}) {
        const size_t count = static_cast<size_t>(width * height * channels);
        const std::vector<float> a = Values(count, 7), b = Values(count, 8);
        for (int32_t method = -1; method <= 12; ++method) {
            for (float s : {0.0f, 0.35f, 1.0f}) {
                SCOPED_TRACE("channels " + std::to_string(channels) + ", method " +
                             std::to_string(method) + ", strength " + std::to_string(s));
                std::vector<float> expected(count);
                const bool known = method >= 0 && method <= (channels == 1 ? 11 : 10);
                for (size_t i = 0; i < count; ++i) {
                    const float r = known ? kMethods[method](a[i], b[i], s) : a[i];
                    expected[i] = channels == 1 ? Height(r) : Channel(r);
                }
                // All rows at once, then in pieces of a few rows.
                std::vector<float> whole = a, pieces = a;
                const CombinePlane all{whole.data(), b.data(), width, channels};
                const CombinePlane cut{pieces.data(), b.data(), width, channels};
                auto run = [&](const CombinePlane& p, int32_t first, int32_t last) {
                    if (channels == 1)
                        CombineHeightRows(p, method, s, first, last);
                    else
                        CombineImageRows(p, method, s, first, last);
                };
                run(all, 0, height - 1);
                for (int32_t first = 0; first < height; first += 4)
                    run(cut, first, std::min(first + 3, height - 1));
                EXPECT_TRUE(SameBits(whole, expected));
                EXPECT_TRUE(SameBits(pieces, expected));
            }
        }
    }
}

TEST(CombineKernels, ArithmeticAddsOrSubtractsAndClips) {
    const std::vector<float> a = {0.25f, 0.9f, 0.1f, -0.5f, kNaN, 0.5f};
    const std::vector<float> b = {0.5f, 0.5f, 0.5f, 0.0f, 0.5f, kNaN};
    const struct {
        int32_t operation;
        float amount;
        std::vector<float> expected;
    } cases[] = {
        {kArithmeticAdd, 0.5f, {0.5f, 1.0f, 0.35f, 0.0f, 1.0f, 1.0f}},
        {kArithmeticSubtract, 0.5f, {0.0f, 0.65f, 0.0f, 0.0f, 1.0f, 1.0f}},
        {kArithmeticAdd, 0.0f, {0.25f, 0.9f, 0.1f, 0.0f, 1.0f, 1.0f}},
        {7, 1.0f, {0.25f, 0.9f, 0.1f, 0.0f, 1.0f, 0.5f}},
    };
    for (const auto& c : cases) {
        std::vector<float> out = a;
        ArithmeticRows({out.data(), b.data(), 3, 1}, c.operation, c.amount, 0, 1);
        for (size_t i = 0; i < out.size(); ++i)
            EXPECT_EQ(out[i], c.expected[i]) << "operation " << c.operation << ", sample " << i;
    }
}

}  // namespace
}  // namespace basekit
