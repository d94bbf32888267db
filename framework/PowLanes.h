// Orogen::Pow for the lanes of a vector loop: the same operations as
// framework/PortableMath.cpp's Exp(y * Log(x)), written without branches so
// that the compiler can vectorise them, for the "ordinary" arguments only
// (PowOrdinary); every other pair goes to Orogen::Pow itself. Templates over
// the path's tag type, like the loops that use them, so that no instance is
// shared between paths, and always inlined, or the loops would not vectorise.
// Tests compare the bits with Orogen::Pow.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

namespace Orogen {

// x > 0 and finite, not 1; y within ±2^22, not whole (Pow squares whole
// powers).
// NaN fails every comparison, so it is not ordinary either.
template <class Path>
[[gnu::always_inline]] inline bool PowOrdinary(float x, float y) {
    // Conditions counted rather than joined with && and no conversions: no
    // branches, so that the loop vectorises. Below 2^22, adding and taking
    // away 1.5 * 2^23 rounds y to a whole number; larger y go to Pow.
    constexpr float kRound = 12582912.0f;
    const int moderate = int(y > -4194304.0f) + int(y < 4194304.0f);
    const int fraction = int((y + kRound) - kRound != y);
    return int(x > 0.0f) + int(x < 3.4e38f) + int(x != 1.0f) + moderate + fraction == 6;
}

// ln x for a positive, normal x.
template <class Path>
[[gnu::always_inline]] inline double LogLane(double x) {
    constexpr double kLn2Hi = 6.93147180369123816490e-01;
    constexpr double kLn2Lo = 1.90821492927058770002e-10;
    const uint64_t bits = std::bit_cast<uint64_t>(x);
    int32_t k = static_cast<int32_t>(bits >> 52) - 1023;
    double m = std::bit_cast<double>((bits & 0x000FFFFFFFFFFFFFull) | 0x3FF0000000000000ull);
    const bool high = m > 1.4142135623730951;
    m = high ? m * 0.5 : m;
    k = high ? k + 1 : k;
    const double f = m - 1.0;
    const double s = f / (2.0 + f);
    const double z = s * s;
    // 2/3, 2/5, ..., 2/21, in Horner's order.
    double p = 2.0 / 21;
    p = p * z + 2.0 / 19;
    p = p * z + 2.0 / 17;
    p = p * z + 2.0 / 15;
    p = p * z + 2.0 / 13;
    p = p * z + 2.0 / 11;
    p = p * z + 2.0 / 9;
    p = p * z + 2.0 / 7;
    p = p * z + 2.0 / 5;
    p = p * z + 2.0 / 3;
    const double r = z * p;
    const double halfSquare = 0.5 * f * f;
    const double dk = static_cast<double>(k);
    return dk * kLn2Hi + ((f - (halfSquare - s * (halfSquare + r))) + dk * kLn2Lo);
}

// e^x for |x| below 700, where the result stays normal.
template <class Path>
[[gnu::always_inline]] inline double ExpLane(double x) {
    constexpr double kLn2Hi = 6.93147180369123816490e-01;
    constexpr double kLn2Lo = 1.90821492927058770002e-10;
    constexpr double kRound = 6755399441055744.0;
    const double k = (x * 1.44269504088896338700 + kRound) - kRound;
    const double r = (x - k * kLn2Hi) - k * kLn2Lo;
    const double r2 = r * r, r4 = r2 * r2, r8 = r4 * r4;
    const double a = 1.0 / 2.0 + r * (1.0 / 6.0);
    const double b = 1.0 / 24.0 + r * (1.0 / 120.0);
    const double c = 1.0 / 720.0 + r * (1.0 / 5040.0);
    const double d = 1.0 / 40320.0 + r * (1.0 / 362880.0);
    const double e = 1.0 / 3628800.0 + r * (1.0 / 39916800.0);
    const double f = 1.0 / 479001600.0 + r * (1.0 / 6227020800.0);
    const double p = (a + r2 * b) + r4 * (c + r2 * d) + r8 * (e + r2 * f);
    const double value = 1.0 + (r + r2 * p);
    const int32_t n = static_cast<int32_t>(k);
    return value * std::bit_cast<double>(static_cast<uint64_t>(n + 1023) << 52);
}

// Orogen::Cos(x) for 0 <= x < 2^20, as PortableMath.cpp reduces and sums it:
// both series are summed and the quadrant picks one, with no branch.
template <class Path>
[[gnu::always_inline]] inline float CosLane(float x) {
    constexpr double kPio2Hi = 1.57079632673412561417e+00;
    constexpr double kPio2Mid = 6.07710050630396597660e-11;
    constexpr double kPio2Lo = 2.02226624879595063154e-21;
    const double d = x;
    const double k = std::floor(d * 0.63661977236758134308 + 0.5);
    const double r = ((d - k * kPio2Hi) - k * kPio2Mid) - k * kPio2Lo;
    const int32_t quadrant = static_cast<int32_t>(k) & 3;
    const double z = r * r;
    double s = 1.0 / 355687428096000.0;
    s = s * z - 1.0 / 1307674368000.0;
    s = s * z + 1.0 / 6227020800.0;
    s = s * z - 1.0 / 39916800.0;
    s = s * z + 1.0 / 362880.0;
    s = s * z - 1.0 / 5040.0;
    s = s * z + 1.0 / 120.0;
    s = s * z - 1.0 / 6.0;
    const double sine = r + r * z * s;
    double c = -1.0 / 6402373705728000.0;
    c = c * z + 1.0 / 20922789888000.0;
    c = c * z - 1.0 / 87178291200.0;
    c = c * z + 1.0 / 479001600.0;
    c = c * z - 1.0 / 3628800.0;
    c = c * z + 1.0 / 40320.0;
    c = c * z - 1.0 / 720.0;
    c = c * z + 1.0 / 24.0;
    const double cosine = 1.0 - 0.5 * z + z * z * c;
    const double value = (quadrant & 1) ? sine : cosine;
    const bool negative = quadrant == 1 || quadrant == 2;
    return static_cast<float>(negative ? -value : value);
}

// Orogen::Pow(x, y) for an ordinary pair whose y ln x lies within ±700; `ok`
// says whether it did. Other lanes work on 0 instead (masked, not selected:
// no branch), and their result means nothing.
template <class Path>
[[gnu::always_inline]] inline float PowLane(float x, float y, bool& ok) {
    const double t = static_cast<double>(y) * LogLane<Path>(static_cast<double>(x));
    ok = int(PowOrdinary<Path>(x, y)) + int(t > -700.0) + int(t < 700.0) == 3;
    const uint64_t keep = 0 - static_cast<uint64_t>(ok);
    return static_cast<float>(
        ExpLane<Path>(std::bit_cast<double>(std::bit_cast<uint64_t>(t) & keep)));
}

}  // namespace Orogen
