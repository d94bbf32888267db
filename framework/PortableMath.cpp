#include "framework/PortableMath.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace Orogen {

namespace {

// ln 2 in two parts; the first has a short mantissa, so k * kLn2Hi is exact.
constexpr double kLn2Hi = 6.93147180369123816490e-01;
constexpr double kLn2Lo = 1.90821492927058770002e-10;
constexpr double kPi = 3.14159265358979311600e+00;

// 2^e for a normal exponent, built from its bits.
double TwoTo(int e) {
    return std::bit_cast<double>(static_cast<uint64_t>(e + 1023) << 52);
}

// Taylor series on |r| <= pi/4, far past double precision.
double SinSeries(double r) {
    const double z = r * r;
    double p = 1.0 / 355687428096000.0;
    p = p * z - 1.0 / 1307674368000.0;
    p = p * z + 1.0 / 6227020800.0;
    p = p * z - 1.0 / 39916800.0;
    p = p * z + 1.0 / 362880.0;
    p = p * z - 1.0 / 5040.0;
    p = p * z + 1.0 / 120.0;
    p = p * z - 1.0 / 6.0;
    return r + r * z * p;
}

double CosSeries(double r) {
    const double z = r * r;
    double p = -1.0 / 6402373705728000.0;
    p = p * z + 1.0 / 20922789888000.0;
    p = p * z - 1.0 / 87178291200.0;
    p = p * z + 1.0 / 479001600.0;
    p = p * z - 1.0 / 3628800.0;
    p = p * z + 1.0 / 40320.0;
    p = p * z - 1.0 / 720.0;
    p = p * z + 1.0 / 24.0;
    return 1.0 - 0.5 * z + z * z * p;
}

// x = k * pi/2 + r with |r| <= pi/4 (a little more for huge x); returns k mod 4.
int Reduce(double x, double& r) {
    // pi/2 in three parts; the first two have short mantissas, so their
    // products with k are exact.
    constexpr double kPio2Hi = 1.57079632673412561417e+00;
    constexpr double kPio2Mid = 6.07710050630396597660e-11;
    constexpr double kPio2Lo = 2.02226624879595063154e-21;
    const double k = std::floor(x * 0.63661977236758134308 + 0.5);
    r = ((x - k * kPio2Hi) - k * kPio2Mid) - k * kPio2Lo;
    return static_cast<int>(std::fmod(k, 4.0) + 4.0) & 3;
}

// The coefficients of atan's series (-1/3, 1/5, -1/7, ...) and of log's (2/3,
// 2/5, ...), divided once, at compile time.
template <int N>
constexpr std::array<double, N> OddReciprocals(double numerator, bool alternate) {
    std::array<double, N> c{};
    for (int i = 0; i < N; ++i)
        c[i] = (alternate && i % 2 == 0 ? -numerator : numerator) / (2 * i + 3);
    return c;
}

template <std::size_t N>
double Horner(const std::array<double, N>& c, double z) {
    double p = c[N - 1];
    for (std::size_t i = N - 1; i-- > 0;) p = p * z + c[i];
    return p;
}

// atan u = u - u^3/3 + u^5/5 - ... on |u| <= tan(pi/8); the first term left out
// is below 2^-56 of the sum.
double AtanSeries(double u) {
    static constexpr auto kTerms = OddReciprocals<19>(1.0, true);
    const double z = u * u;
    return u + u * z * Horner(kTerms, z);
}

// atan t for 0 <= t <= 1: near 1 through atan t = pi/4 + atan((t - 1) / (t + 1)).
double AtanUnit(double t) {
    if (t <= 0.41421356237309503) return AtanSeries(t);
    return kPi / 4 + AtanSeries((t - 1.0) / (t + 1.0));
}

}  // namespace

double Exp(double x) {
    if (!(x > -745.2)) return std::isnan(x) ? x : 0.0;
    if (x > 709.782712893384) return std::numeric_limits<double>::infinity();
    // x = k ln 2 + r, |r| <= ln 2 / 2. Adding and taking away 1.5 * 2^52
    // rounds to a whole number.
    constexpr double kRound = 6755399441055744.0;
    const double k = (x * 1.44269504088896338700 + kRound) - kRound;
    const double r = (x - k * kLn2Hi) - k * kLn2Lo;
    // The Taylor series to r^13, in pairs so that fewer steps wait on each other.
    const double r2 = r * r, r4 = r2 * r2, r8 = r4 * r4;
    const double a = 1.0 / 2.0 + r * (1.0 / 6.0);
    const double b = 1.0 / 24.0 + r * (1.0 / 120.0);
    const double c = 1.0 / 720.0 + r * (1.0 / 5040.0);
    const double d = 1.0 / 40320.0 + r * (1.0 / 362880.0);
    const double e = 1.0 / 3628800.0 + r * (1.0 / 39916800.0);
    const double f = 1.0 / 479001600.0 + r * (1.0 / 6227020800.0);
    const double p = (a + r2 * b) + r4 * (c + r2 * d) + r8 * (e + r2 * f);
    const double value = 1.0 + (r + r2 * p);
    const int n = static_cast<int>(k);
    // Scaled in steps that stay normal, so that only the last one rounds.
    if (n > 1023) return value * TwoTo(1023) * TwoTo(n - 1023);
    if (n < -1022) return value * TwoTo(n + 600) * TwoTo(-600);
    return value * TwoTo(n);
}

double Exp2(double x) {
    if (std::isnan(x)) return x;
    if (x >= 1100.0) return std::numeric_limits<double>::infinity();
    if (x <= -1100.0) return 0.0;
    const int n = static_cast<int>(std::floor(x));
    // The fraction is exact; of the two normal scalings only the last rounds.
    const double f = Exp((x - n) * 0.69314718055994530942);
    return f * TwoTo(n / 2) * TwoTo(n - n / 2);
}

float Sin(float x) {
    if (!std::isfinite(x)) return std::numeric_limits<float>::quiet_NaN();
    double r;
    switch (Reduce(x, r)) {
        case 0:
            return static_cast<float>(SinSeries(r));
        case 1:
            return static_cast<float>(CosSeries(r));
        case 2:
            return static_cast<float>(-SinSeries(r));
        default:
            return static_cast<float>(-CosSeries(r));
    }
}

float Cos(float x) {
    if (!std::isfinite(x)) return std::numeric_limits<float>::quiet_NaN();
    double r;
    switch (Reduce(x, r)) {
        case 0:
            return static_cast<float>(CosSeries(r));
        case 1:
            return static_cast<float>(-SinSeries(r));
        case 2:
            return static_cast<float>(-CosSeries(r));
        default:
            return static_cast<float>(SinSeries(r));
    }
}

double Log(double x) {
    if (!(x > 0.0)) {
        return x == 0.0 ? -std::numeric_limits<double>::infinity()
                        : std::numeric_limits<double>::quiet_NaN();
    }
    if (x == std::numeric_limits<double>::infinity()) return x;
    int k = 0;
    if (x < 0x1p-1022) {  // subnormal: made normal first
        x *= 0x1p54;
        k = -54;
    }
    // x = 2^k m with m in [sqrt(1/2), sqrt(2)), from the bits.
    const uint64_t bits = std::bit_cast<uint64_t>(x);
    k += static_cast<int>(bits >> 52) - 1023;
    double m = std::bit_cast<double>((bits & 0x000FFFFFFFFFFFFFull) | 0x3FF0000000000000ull);
    if (m > 1.4142135623730951) {
        m *= 0.5;
        ++k;
    }
    // ln m = 2 atanh s with s = f / (2 + f), written so that the exact f = m - 1
    // (Sterbenz) carries the bulk and the rounded s only the small rest:
    // ln m = f - f^2/2 + s (f^2/2 + R), R = 2s^2/3 + 2s^4/5 + ...; |s| < 0.172, so
    // the terms past s^20 are below 2^-60 of the sum.
    static constexpr auto kTerms = OddReciprocals<10>(2.0, false);
    const double f = m - 1.0;
    const double s = f / (2.0 + f);
    const double z = s * s;
    const double r = z * Horner(kTerms, z);
    const double halfSquare = 0.5 * f * f;
    const double dk = k;
    return dk * kLn2Hi + ((f - (halfSquare - s * (halfSquare + r))) + dk * kLn2Lo);
}

float Log(float x) {
    return static_cast<float>(Log(static_cast<double>(x)));
}

float Log10(float x) {
    constexpr double kLog10E = 0.43429448190325182765;
    return static_cast<float>(Log(static_cast<double>(x)) * kLog10E);
}

float Pow(float x, float y) {
    constexpr float inf = std::numeric_limits<float>::infinity();
    if (y == 0.0f || x == 1.0f) return 1.0f;  // even for NaN
    if (std::isnan(x) || std::isnan(y)) return x + y;
    const float a = std::fabs(x);
    if (std::isinf(y)) {
        if (a == 1.0f) return 1.0f;
        return (a < 1.0f) == (y < 0.0f) ? inf : 0.0f;
    }
    const bool whole = std::floor(y) == y;
    if (x < 0.0f && !whole && std::isfinite(x)) return std::numeric_limits<float>::quiet_NaN();
    // Every float from 2^24 up is an even whole number.
    const bool odd = whole && std::fabs(y) < 0x1p24f && (static_cast<int32_t>(y) & 1) != 0;
    const bool negative = odd && std::signbit(x);
    double magnitude;
    if (a == 0.0f || a == inf) {
        magnitude = (a == 0.0f) == (y < 0.0f) ? inf : 0.0;
    } else if (whole && y > 0.0f && y <= 32.0f) {
        // Squaring in double is exact whenever the power fits in 53 bits, which
        // covers every power that falls halfway between two floats, so those
        // round to even as they should.
        double base = a, p = 1.0;
        for (int n = static_cast<int>(y);; base *= base) {
            if (n & 1) p *= base;
            if ((n >>= 1) == 0) break;
        }
        magnitude = p;
    } else {
        // |y ln a| stays below about 110 wherever the float result is neither 0
        // nor inf, so the product's error moves the result by under 2^-44.
        magnitude = Exp(static_cast<double>(y) * Log(static_cast<double>(a)));
    }
    return static_cast<float>(negative ? -magnitude : magnitude);
}

float Atan2(float y, float x) {
    if (std::isnan(x) || std::isnan(y)) return x + y;
    // The angle folded into the first quadrant, then unfolded: the float ratio
    // neither overflows nor underflows in double.
    const double ay = std::fabs(static_cast<double>(y)), ax = std::fabs(static_cast<double>(x));
    double angle;
    if (ay == ax) {
        angle = ay == 0.0 ? 0.0 : kPi / 4;  // both zero or both infinite too
    } else if (ay < ax) {
        angle = AtanUnit(ay / ax);
    } else {
        angle = kPi / 2 - AtanUnit(ax / ay);
    }
    if (std::signbit(x)) angle = kPi - angle;
    return static_cast<float>(std::signbit(y) ? -angle : angle);
}

}  // namespace Orogen
