#include "devices/natural/coast/CoastKernels.h"

#include <algorithm>
#include <cmath>

#include "devices/natural/coast/CoastPaths.h"
#include "framework/PortableMath.h"

namespace basekit {

using coast::kFullWater;

CoastSetup MakeCoastSetup(float water, float beach, int32_t zone, float power) {
    const float g = 0.45f * power + 0.5f;
    const auto exponent = static_cast<float>(Orogen::Log(1.0 - g) / Orogen::Log(0.5));
    return {water, beach, zone, power, exponent};
}

namespace {

// Pow(x, e) for x in 0..2, as Pow's own general case computes it (a fractional
// e is the usual one), without its checks for the cases that cannot occur here.
inline float GainPower(float x, float e, bool whole) {
    if (whole || !(x > 0.0f && x <= 2.0f)) return Orogen::Pow(x, e);
    return static_cast<float>(Orogen::Exp(static_cast<double>(e) * Orogen::Log(double{x})));
}

inline float Gain(float u, float e, bool whole) {
    if (u < 0.5f) return 0.5f * GainPower(2.0f * u, e, whole);
    return 1.0f - 0.5f * GainPower(2.0f - 2.0f * u, e, whole);
}

// One sample on the plain path; a sample of the smooth beach waits.
inline void ErodeSample(const CoastSetup& s, float* heights, const float* hardness, float* water,
                        float* beach, int32_t x, coast::Waiting& waiting) {
    const float W = s.water;
    const float h = heights[x];
    const float d = h - W;
    const float b = hardness ? s.beach * hardness[x] : s.beach;
    float wet = 0.0f, shore = 0.0f;
    if (d > 0.0f && b >= d) {
        float u = d / b;
        if (s.zone != kCoastCliffs) {
            waiting.at[waiting.count] = x;
            waiting.drop[waiting.count] = d;
            waiting.share[waiting.count++] = u;
        } else {
            u = u + (u * u * u - u) * s.power;
            heights[x] = d * u + W;
            shore = 1.0f - u;
        }
    } else if (d < 0.0f) {
        if (d >= -b) {
            const float q = d / b;
            const float f = q * q;
            heights[x] = d * f + W;
            shore = 1.0f - f;
        }
        wet = (W - heights[x]) / kFullWater;
        if (!(wet < 1.0f)) wet = 1.0f;
    }
    water[x] = wet;
    beach[x] = shore;
}

}  // namespace

float CoastGain(float u, float exponent) {
    return Gain(u, exponent, std::floor(exponent) == exponent);
}

void ErodeCoastRow(const CoastSetup& s, float* heights, const float* hardness, float* water,
                   float* beach, int32_t count, VectorPath path) {
    path = UsablePath(path);
    const bool whole = std::floor(s.exponent) == s.exponent;
    // The smooth zone's curves wait in a list and are evaluated together
    // after each block: with no unforeseeable branch between them, the
    // processor overlaps several of their long, independent chains.
    coast::Waiting waiting;
    for (int32_t x0 = 0; x0 < count; x0 += coast::kBlock) {
        const int32_t x1 = std::min(count, x0 + coast::kBlock);
        waiting.count = 0;
        int32_t x = x0;
        if (path == VectorPath::Avx512)
            x = coast::ErodeVectorsAvx512(s, heights, hardness, water, beach, x, x1, waiting);
        else if (path == VectorPath::Avx2)
            x = coast::ErodeVectorsAvx2(s, heights, hardness, water, beach, x, x1, waiting);
        for (; x < x1; ++x) ErodeSample(s, heights, hardness, water, beach, x, waiting);
        for (int32_t k = 0; k < waiting.count; ++k) {
            // Gain, with selections where it branches.
            const float q = waiting.share[k];
            const bool low = q < 0.5f;
            const float half =
                0.5f * GainPower(low ? 2.0f * q : 2.0f - 2.0f * q, s.exponent, whole);
            const float u = low ? half : 1.0f - half;
            heights[waiting.at[k]] = waiting.drop[k] * u + s.water;
            beach[waiting.at[k]] = 1.0f - u;
        }
    }
}

void BlendUnderwater(float* heights, const float* blurred, const float* water, uint64_t count) {
    for (uint64_t i = 0; i < count; ++i)
        heights[i] = heights[i] + (blurred[i] - heights[i]) * water[i];
}

}  // namespace basekit
