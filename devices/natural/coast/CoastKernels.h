// The coast erosion's per-sample kernels: a beach above the water line, a
// shelf below it, the masks, and the blend of the underwater smoothing.
#pragma once

#include <cstdint>

#include "framework/VectorDispatch.h"

namespace basekit {

// Choices of "Transition Zone".
enum CoastZone : int32_t { kCoastSmooth = 0, kCoastCliffs = 1 };

// What the shaping of one sample needs.
struct CoastSetup {
    float water;  // the water line, 0.0004 above the level set
    float beach;  // width of the beach and of the shelf
    int32_t zone;
    float power;     // "Transition Power"
    float exponent;  // of the smooth zone's gain curve: ln(1 - g) / ln(0.5)
};

// The setup of a build; the exponent follows from zone and power.
CoastSetup MakeCoastSetup(float water, float beach, int32_t zone, float power);

// The smooth zone's transition curve, gain(g, u) with its exponent e.
float CoastGain(float u, float exponent);

// Shapes `count` samples of one row in place and writes their water and beach
// masks; `hardness` (or null) scales the beach width per sample. Every vector
// path gives the same bits as the plain one.
void ErodeCoastRow(const CoastSetup& setup, float* heights, const float* hardness, float* water,
                   float* beach, int32_t count, VectorPath path = BestVectorPath());

// heights[i] = heights[i] + (blurred[i] - heights[i]) * water[i]: blurred
// deep water, untouched land, a blend in the shallows.
void BlendUnderwater(float* heights, const float* blurred, const float* water, uint64_t count);

}  // namespace basekit
