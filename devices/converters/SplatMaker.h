#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// Texture weights of three layers from heights and slopes: low ground in
// red, rock in green, high ground in blue.
class SplatMaker : public DeviceOf<SplatMaker, Converter> {
  public:
    static constexpr DeviceInfo kInfo{"NORM", "Splat Converter",
                                      "Makes a splat map of texture weights from the terrain", 1};
    SplatMaker();
    bool Build(const BuildContext& context) override;
};

struct SplatSetup {
    const float* heights;  // clamped into 0..1
    Orogen::Grid grid;     // width, height, extent and vertical scale give the slopes
    int32_t rockAngle;     // degrees
    float highLevel;
    float transition;
};

// The rock weight of a slope of length `steep` (world units per world unit):
// the ramp of its angle, in right angles, from `lo` to `hi`.
float SplatRock(float steep, float lo, float hi);

// Rows first..last of the splat map, three floats a point. Every vector path
// gives the plain path's bits.
void SplatRows(const SplatSetup& setup, int32_t first, int32_t last, float* rgb,
               VectorPath path = BestVectorPath());

}  // namespace basekit
