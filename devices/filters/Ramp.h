#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// Maps the heights between two levels onto 0..1, in a straight line or an
// S-curve; falls instead of rising when "End" is below "Start".
class Ramp : public DeviceOf<Ramp, Filter> {
  public:
    static constexpr DeviceInfo kInfo{"RAMP", "Ramp",
                                      "Maps the heights between two levels onto the full range", 1};
    Ramp();
    bool Build(const BuildContext& context) override;
};

// Choices of "Shape".
enum RampShape : int32_t { kRampLinear = 0, kRampSmooth = 1 };

// h := the ramp of h from `start` to `end`, smoothed with kRampSmooth, then
// clamped to 0..1 (NaN to 1). Every path gives the same bits.
void RampSamples(float* samples, uint64_t count, float start, float end, int32_t shape,
                 VectorPath path = BestVectorPath());

}  // namespace basekit
