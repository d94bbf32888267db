// The portable exp, 2^x, sine, cosine, log, pow and atan2: exact where the
// value is exact, within an ulp or two of the C library elsewhere, and the edges.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <numbers>
#include <random>

#include "framework/PortableMath.h"

namespace {

using namespace Orogen;

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

TEST(PortableMath, ExpAndLogAreWithinTwoUlps) {
    int64_t worst = 0;
    for (double x = -744.0; x < 709.0; x += 0.0137) worst = std::max(worst, UlpsApart(Exp(x), std::exp(x)));
    for (double x = -1.0; x < 1.0; x += 1e-5) worst = std::max(worst, UlpsApart(Exp(x), std::exp(x)));
    EXPECT_LE(worst, 2);
    worst = 0;
    for (double x = 1e-310; x < 1e308; x *= 1.0137)
        worst = std::max(worst, UlpsApart(Log(x), std::log(x)));
    for (double x = 0.5; x < 2.0; x += 1e-5)
        worst = std::max(worst, UlpsApart(Log(x), std::log(x)));
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

// Same bits, signed zeros included; any NaN matches any NaN.
bool Same(float a, float b) {
    return std::isnan(a) ? std::isnan(b) : std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}
bool Same(double a, double b) {
    return std::isnan(a) ? std::isnan(b) : std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}

TEST(PortableMath, PowLogAtan2ExactAndSpecialValues) {
    const float inf = std::numeric_limits<float>::infinity(), nan = std::nanf("");
    const float tiny = std::numeric_limits<float>::denorm_min();
    const struct {
        float x, y, expected;
    } pows[] = {{2, 10, 1024},       {2, -2, 0.25f},      {-2, 3, -8},        {-2, -3, -0.125f},
                {4, 0.5f, 2},        {-8, 1.0f / 3, nan}, {nan, 0, 1},        {nan, -0.0f, 1},
                {1, nan, 1},         {nan, 1, nan},       {2, nan, nan},      {1, inf, 1},
                {-1, inf, 1},        {-1, -inf, 1},       {0.5f, inf, 0},     {0.5f, -inf, inf},
                {-2, inf, inf},      {2, -inf, 0},        {0, -3, inf},       {-0.0f, -3, -inf},
                {-0.0f, -2, inf},    {-0.0f, -0.5f, inf}, {-0.0f, -inf, inf}, {-0.0f, 3, -0.0f},
                {-0.0f, 2, 0},       {-0.0f, 0.5f, 0},    {inf, -1, 0},       {inf, 0.5f, inf},
                {-inf, 3, -inf},     {-inf, 2, inf},      {-inf, -3, -0.0f},  {-inf, -2, 0},
                {-inf, 0.5f, inf},   {-inf, -0.5f, 0},    {10, 39, inf},      {-10, 39, -inf},
                {10, -46, 0},        {-10, -47, -0.0f},   {-1, 1e30f, 1},     {-3, 5, -243},
                {4097, 2, 16785408},  // halfway between two floats: ties go to even
                {11, 7, 19487172}};
    for (const auto& p : pows)
        EXPECT_TRUE(Same(Pow(p.x, p.y), p.expected))
            << p.x << " ^ " << p.y << " = " << Pow(p.x, p.y);

    // Expected values in double, rounded to float where compared.
    const double ln2 = std::numbers::ln2, ln10 = std::numbers::ln10;
    const struct {
        float x;
        double ln, lg;
    } logs[] = {{1, 0, 0},           {0, -inf, -inf},        {-0.0f, -inf, -inf},
                {-1, nan, nan},      {-inf, nan, nan},       {inf, inf, inf},
                {nan, nan, nan},     {10, ln10, 1},          {100, 2 * ln10, 2},
                {1000, 3 * ln10, 3}, {1e10f, 10 * ln10, 10}, {0.5f, -ln2, -ln2 / ln10}};
    for (const auto& l : logs) {
        EXPECT_TRUE(Same(Log(l.x), float(l.ln))) << l.x;
        EXPECT_TRUE(Same(Log10(l.x), float(l.lg))) << l.x;
        if (!std::isfinite(l.ln) || l.ln == 0) {
            EXPECT_TRUE(Same(Log(double(l.x)), l.ln)) << l.x;
        }
    }

    const float pi = float(std::numbers::pi), half = float(std::numbers::pi / 2),
                quarter = float(std::numbers::pi / 4), three = float(3 * std::numbers::pi / 4);
    const struct {
        float y, x, expected;
    } atans[] = {
        {0, 1, 0},           {-0.0f, 1, -0.0f},   {0, -1, pi},          {-0.0f, -1, -pi},
        {0, 0, 0},           {-0.0f, 0, -0.0f},   {0, -0.0f, pi},       {-0.0f, -0.0f, -pi},
        {1, 0, half},        {-1, 0, -half},      {1, -0.0f, half},     {-1, -0.0f, -half},
        {1, 1, quarter},     {1, -1, three},      {-1, -1, -three},     {-1, 1, -quarter},
        {inf, inf, quarter}, {inf, -inf, three},  {-inf, -inf, -three}, {-inf, inf, -quarter},
        {1, inf, 0},         {-1, inf, -0.0f},    {1, -inf, pi},        {-1, -inf, -pi},
        {inf, 1, half},      {-inf, -5, -half},   {nan, 1, nan},        {1, nan, nan},
        {tiny, 1, tiny},     {3e-20f, -1e20f, pi}};
    for (const auto& a : atans)
        EXPECT_TRUE(Same(Atan2(a.y, a.x), a.expected))
            << a.y << ", " << a.x << " -> " << Atan2(a.y, a.x);
}

// Against the C library in double, rounded once to float: never more than an
// ulp apart, and on it nearly always. The library differs by platform, so
// nothing here asks for its exact bits.
TEST(PortableMath, PowLogAtan2AreWithinAnUlpOfTheCLibrary) {
    struct Tally {
        const char* name;
        int64_t count = 0, exact = 0, off = 0;
        void Add(float got, double reference, float x, float y = 0) {
            const float expected = static_cast<float>(reference);
            ++count;
            if (Same(got, expected)) {
                ++exact;
            } else if (std::isnan(got) || std::isnan(expected) ||
                       std::signbit(got) != std::signbit(expected) ||
                       UlpsApart(got, expected) > 1) {
                if (++off <= 5)
                    ADD_FAILURE() << name << "(" << x << ", " << y << ") = " << got << ", not "
                                  << expected;
            }
        }
        ~Tally() {
            std::printf("%-6s %lld of %lld on the library's value\n", name, (long long)exact,
                        (long long)count);
            EXPECT_EQ(off, 0) << name << ": more than an ulp off";
            EXPECT_GE(exact, count - count / 1000) << name;
        }
    };
    std::mt19937 random(12345);
    auto uniform = [&](double lo, double hi) { return lo + (hi - lo) * (random() / 4294967296.0); };

    {
        Tally ln{"Log"}, lg{"Log10"};
        auto check = [&](float x) {
            ln.Add(Log(x), std::log(double(x)), x);
            lg.Add(Log10(x), std::log10(double(x)), x);
        };
        // Every 2039th positive float, the range devices use, and either side of 1.
        for (uint32_t bits = 1; bits < 0x7F800000u; bits += 2039) check(std::bit_cast<float>(bits));
        for (float x = 1e-30f; x < 1e30f; x *= 1.0003f) check(x);
        for (int i = -30000; i <= 30000; ++i) check(std::bit_cast<float>(0x3F800000 + i));
    }
    {
        Tally power{"Pow"};
        auto check = [&](float x, float y) {
            power.Add(Pow(x, y), std::pow(double(x), double(y)), x, y);
        };
        // Bases in [0, 1] with exponents 0.001..5, as the combiner and erosion take them.
        for (int i = 0; i <= 1000; ++i)
            for (int j = 0; j < 400; ++j)
                check(i / 1000.0f, float(0.001 * std::pow(5000.0, j / 399.0)));
        for (int i = 0; i < 200000; ++i) {
            // Any positive base, with the exponent aimed at results from 2^-150 to 2^130.
            const float x = std::bit_cast<float>(uint32_t(random()) % 0x7F800000u);
            check(x, float(uniform(-150, 130) / std::log2(double(x))));
            // Negative bases with whole exponents, small whole exponents on any base.
            check(float(uniform(-8, 0)), float(std::floor(uniform(-40, 40))));
            check(float(uniform(-100, 100)), float(std::floor(uniform(1, 33))));
        }
    }
    {
        Tally angle{"Atan2"};
        auto check = [&](float y, float x) {
            angle.Add(Atan2(y, x), std::atan2(double(y), double(x)), y, x);
        };
        // All four quadrants, magnitudes from 2^-40 to 2^40 against each other.
        for (int i = -280; i <= 280; i += 2)
            for (int j = -280; j <= 280; j += 3) {
                const float y = float(std::exp2(i / 7.0)), x = float(std::exp2(j / 7.0));
                check(y, x), check(-y, x), check(y, -x), check(-y, -x);
            }
        for (int i = 0; i < 200000; ++i) {
            const double angle = uniform(-std::numbers::pi, std::numbers::pi),
                         r = uniform(1e-3, 1e3);
            check(float(r * std::sin(angle)), float(r * std::cos(angle)));
        }
    }
}

}  // namespace
