#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"

namespace basekit {

// Shapes a terrain around a water line: a beach just above it, a shelf just
// below it, and optionally smoothed ground under water. Besides the terrain it
// gives out a water mask and a beach mask.
class CoastalErosion : public DeviceOf<CoastalErosion, NaturalFilter> {
  public:
    static constexpr DeviceInfo kInfo{"COER", "Coast Erosion", "Ocean coast Erosion", 1};
    CoastalErosion();
    bool OptionQuery3(uint32_t globals) override;
    bool Build(const BuildContext& context) override;
};

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
// masks; `hardness` (or null) scales the beach width per sample.
void ErodeCoastRow(const CoastSetup& setup, float* heights, const float* hardness, float* water,
                   float* beach, int32_t count);

// heights[i] = before[i] + (heights[i] - before[i]) * water[i]: blurred deep
// water, untouched land, a blend in the shallows.
void BlendUnderwater(float* heights, const float* before, const float* water, uint64_t count);

}  // namespace basekit
