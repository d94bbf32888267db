#include "framework/PortableMath.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

namespace Orogen {

namespace {

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

}  // namespace

double Exp(double x) {
    if (!(x > -745.2)) return std::isnan(x) ? x : 0.0;
    if (x > 709.782712893384) return std::numeric_limits<double>::infinity();
    // x = k ln 2 + r, |r| <= ln 2 / 2; ln 2 in two parts as for pi/2 above.
    // Adding and taking away 1.5 * 2^52 rounds to a whole number.
    constexpr double kLn2Hi = 6.93147180369123816490e-01;
    constexpr double kLn2Lo = 1.90821492927058770002e-10;
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

}  // namespace Orogen
