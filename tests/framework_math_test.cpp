// The portable exp, 2^x, sine and cosine: exact where the value is exact,
// within an ulp or two of the C library elsewhere, and the edges.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

#include "framework/PortableMath.h"

namespace {

using Orogen::Cos;
using Orogen::Exp;
using Orogen::Exp2;
using Orogen::Sin;

int64_t UlpsApart(double a, double b) {
    const int64_t d = std::bit_cast<int64_t>(a) - std::bit_cast<int64_t>(b);
    return d < 0 ? -d : d;
}

int32_t UlpsApart(float a, float b) {
    // Across zero the integer distance is meaningless; no test needs it.
    const int32_t d = std::bit_cast<int32_t>(a) - std::bit_cast<int32_t>(b);
    return d < 0 ? -d : d;
}

TEST(PortableMath, ExactValues) {
    const double inf = std::numeric_limits<double>::infinity();
    const struct {
        double x, expected;
    } exps[] = {{0.0, 1.0},      {-0.0, 1.0},       {1000.0, inf},
                {-1000.0, 0.0},  {709.79, inf},     {-745.3, 0.0},
                {inf, inf},      {-inf, 0.0},       {-745.1, 0x1p-1074}};
    for (const auto& e : exps) EXPECT_EQ(Exp(e.x), e.expected) << e.x;
    EXPECT_TRUE(std::isnan(Exp(std::nan(""))));

    for (int n = -1074; n <= 1023; ++n) ASSERT_EQ(Exp2(n), std::ldexp(1.0, n)) << n;
    EXPECT_EQ(Exp2(1024.0), inf);
    EXPECT_EQ(Exp2(-1075.0), 0.0);
    EXPECT_TRUE(std::isnan(Exp2(std::nan(""))));

    EXPECT_EQ(Sin(0.0f), 0.0f);
    EXPECT_EQ(Cos(0.0f), 1.0f);
    EXPECT_EQ(Sin(1.5707964f), 1.0f);  // pi/2 rounded to float
    EXPECT_EQ(Cos(3.1415927f), -1.0f);
    for (const float x : {std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                          std::nanf("")}) {
        EXPECT_TRUE(std::isnan(Sin(x)));
        EXPECT_TRUE(std::isnan(Cos(x)));
    }
}

TEST(PortableMath, ExpIsWithinTwoUlps) {
    int64_t worst = 0;
    for (double x = -744.0; x < 709.0; x += 0.0137) worst = std::max(worst, UlpsApart(Exp(x), std::exp(x)));
    for (double x = -1.0; x < 1.0; x += 1e-5) worst = std::max(worst, UlpsApart(Exp(x), std::exp(x)));
    EXPECT_LE(worst, 2);
    for (double x = -30.0; x < 30.0; x += 0.01)
        ASSERT_LE(UlpsApart(Exp2(x), std::exp2(x)), 2) << x;
}

// The angles devices take (whole degrees and beyond a turn), and a sweep.
TEST(PortableMath, SineAndCosineAreWithinAnUlp) {
    int32_t worst = 0;
    auto check = [&](float x) {
        const float s = Sin(x), c = Cos(x);
        const double ts = std::sin(double(x)), tc = std::cos(double(x));
        ASSERT_LE(std::fabs(s - ts), 1e-7) << x;
        ASSERT_LE(std::fabs(c - tc), 1e-7) << x;
        if (std::fabs(ts) > 1e-3) worst = std::max(worst, UlpsApart(s, float(ts)));
        if (std::fabs(tc) > 1e-3) worst = std::max(worst, UlpsApart(c, float(tc)));
    };
    for (int degrees = -720; degrees <= 720; ++degrees) {
        check(float(degrees) * 3.1415927f / 180.0f);
        check(float(degrees) * 0.017453292f);
    }
    for (float x = -20.0f; x < 20.0f; x += 0.000731f) check(x);
    EXPECT_LE(worst, 1);
    // Odd and even, as the reduction must keep them.
    for (float x = 0.001f; x < 10.0f; x *= 1.37f) {
        EXPECT_EQ(Sin(-x), -Sin(x)) << x;
        EXPECT_EQ(Cos(-x), Cos(x)) << x;
    }
}

}  // namespace
