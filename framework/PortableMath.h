// exp, sin and cos from IEEE-754 additions, multiplications and exact
// operations only. The C libraries' versions differ in the last bit from one
// platform to the next (glibc against MinGW-w64's, for instance), and a
// device's output must be the same bits wherever it is built.
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

}  // namespace Orogen
