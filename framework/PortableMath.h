// exp, log, pow, sin, cos and atan2 from IEEE-754 additions, multiplications,
// divisions and exact operations only. The C libraries' versions differ in the
// last bit from one platform to the next (glibc against MinGW-w64's, for
// instance), and a device's output must be the same bits wherever it is built.
#pragma once

namespace Orogen {

// e^x within 2 ulp; +inf above 709.78, 0 below -745.2, NaN for NaN.
double Exp(double x);

// 2^x, exact for whole x; otherwise as Exp.
double Exp2(double x);

// Sine and cosine of an angle in radians, evaluated in double and rounded
// once to float. Meant for angles of a few turns; NaN for infinities and NaN.
float Sin(float x);
float Cos(float x);

// Natural logarithm within 2 ulp; -inf for ±0, NaN below zero, +inf for +inf.
double Log(double x);

// The float functions below are evaluated in double and rounded once, which
// leaves them within an ulp of the correctly rounded value and almost always
// on it. Special cases (NaN, signed zeros, infinities) are the C library's.
float Log(float x);
float Log10(float x);

// x^y; a negative x takes only whole y (NaN otherwise), its sign kept for odd y.
float Pow(float x, float y);

// The angle of (x, y) from the positive x axis, in [-pi, pi].
float Atan2(float y, float x);

}  // namespace Orogen
