#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// Keeps the higher or the lower of two terrains; a transition rounds the
// seam over a height difference instead of a crease.
class HeightCombiner : public DeviceOf<HeightCombiner, CombineFilter> {
  public:
    static constexpr DeviceInfo kInfo{
        "HCMB", "Height Chooser", "Keeps the higher or the lower of two terrains, with a soft seam",
        1};
    HeightCombiner();
    bool OptionQuery7() override { return false; }
    bool Build(const BuildContext& context) override;
};

// Choices of "Keep".
enum KeepHeight : int32_t { kKeepHigher = 0, kKeepLower = 1 };

// Samples begin..end-1 of two fields: r (the chosen height, clamped) over
// `a`, and the share taken from `b` (clamped) in `mask`. Every vector path
// gives the plain path's bits.
void ChooseHeights(float* a, const float* b, float* mask, uint64_t begin, uint64_t end,
                   int32_t keep, float transition, VectorPath path = BestVectorPath());

}  // namespace basekit
